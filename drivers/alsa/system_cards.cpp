#include <alsa/asoundlib.h>

#include <memory>

#include "drivers/alsa/cards.h"

namespace tavistro::alsa {
namespace {

using Control = std::unique_ptr<snd_ctl_t, int (*)(snd_ctl_t*)>;

bool has(snd_ctl_t* control, unsigned device, snd_pcm_stream_t stream) {
    snd_pcm_info_t* info;
    snd_pcm_info_alloca(&info);
    snd_pcm_info_set_device(info, device);
    snd_pcm_info_set_stream(info, stream);
    return snd_ctl_pcm_info(control, info) == 0;
}

void find_devices(snd_ctl_t* control, Card& card) {
    for (int next = -1; snd_ctl_pcm_next_device(control, &next) == 0 && next >= 0;) {
        const auto device = static_cast<unsigned>(next);
        if (!card.playback_device && has(control, device, SND_PCM_STREAM_PLAYBACK))
            card.playback_device = device;
        if (!card.capture_device && has(control, device, SND_PCM_STREAM_CAPTURE))
            card.capture_device = device;
    }
}

}  // namespace

std::vector<Card> read_cards() {
    std::vector<Card> cards;
    for (int number = -1; snd_card_next(&number) == 0 && number >= 0;) {
        snd_ctl_t* handle = nullptr;
        if (snd_ctl_open(&handle, ("hw:" + std::to_string(number)).c_str(), SND_CTL_READONLY) != 0)
            continue;
        const Control control(handle, snd_ctl_close);
        snd_ctl_card_info_t* info;
        snd_ctl_card_info_alloca(&info);
        if (snd_ctl_card_info(handle, info) != 0) continue;
        Card card{number, snd_ctl_card_info_get_id(info), snd_ctl_card_info_get_name(info), {}, {}};
        find_devices(handle, card);
        if (card.playback_device || card.capture_device) cards.push_back(std::move(card));
    }
    return cards;
}

}  // namespace tavistro::alsa
