#include "drivers/alsa/pcm_offer.h"

#include <alsa/asoundlib.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <memory>
#include <optional>

namespace tavistro::alsa {

/// Sets a handler of ALSA's messages for this thread. ALSA's own declaration is not one for C++.
snd_local_error_handler_t set_message_handler(snd_local_error_handler_t handler) asm(
    "snd_lib_error_set_local");

namespace {

constexpr unsigned rates[] = {8000,  11025, 12000, 16000,  22050,  24000,  32000,  44100,  48000,
                              64000, 88200, 96000, 128000, 176400, 192000, 352800, 384000, 768000};
constexpr unsigned fewest_blocks = 2;
constexpr unsigned most_blocks = 4;

// The limits of zita-alsa-pcmi: its sample formats, its channels, and its wait of a second for a
// block.
constexpr snd_pcm_format_t formats[] = {
    SND_PCM_FORMAT_FLOAT_LE, SND_PCM_FORMAT_FLOAT_BE, SND_PCM_FORMAT_S32_LE, SND_PCM_FORMAT_S32_BE,
    SND_PCM_FORMAT_S24_3LE,  SND_PCM_FORMAT_S24_3BE,  SND_PCM_FORMAT_S16_LE, SND_PCM_FORMAT_S16_BE};
constexpr snd_pcm_access_t accesses[] = {SND_PCM_ACCESS_MMAP_NONINTERLEAVED,
                                         SND_PCM_ACCESS_MMAP_INTERLEAVED,
                                         SND_PCM_ACCESS_MMAP_COMPLEX};
constexpr unsigned most_channels = 256;
constexpr unsigned absurd_channels = 1024;  ///< more are taken for "any number"
constexpr unsigned blocks_per_second = 2;   ///< at least

using Pcm = std::unique_ptr<snd_pcm_t, int (*)(snd_pcm_t*)>;

/// Sends ALSA's messages of this thread nowhere: results have the reason.
class ScopedSilence {
  public:
    ScopedSilence() : previous_(set_message_handler(discard)) {}
    ScopedSilence(const ScopedSilence&) = delete;
    ScopedSilence& operator=(const ScopedSilence&) = delete;
    ~ScopedSilence() { set_message_handler(previous_); }

  private:
    static void discard(const char*, int, const char*, int, const char*, va_list) {}
    snd_local_error_handler_t previous_;
};

/// A set of hardware parameters of a device, narrowed step by step.
class Parameters {
  public:
    explicit Parameters(snd_pcm_t* pcm) : pcm_(pcm) {
        snd_pcm_hw_params_malloc(&set_);
        if (set_ == nullptr) throw std::bad_alloc();
        valid_ = snd_pcm_hw_params_any(pcm, set_) >= 0 &&
                 snd_pcm_hw_params_set_periods_integer(pcm, set_) >= 0 &&
                 set_first(accesses, snd_pcm_hw_params_set_access) &&
                 set_first(formats, snd_pcm_hw_params_set_format);
    }
    Parameters(const Parameters& other) : pcm_(other.pcm_), valid_(other.valid_) {
        snd_pcm_hw_params_malloc(&set_);
        if (set_ == nullptr) throw std::bad_alloc();
        snd_pcm_hw_params_copy(set_, other.set_);
    }
    Parameters& operator=(const Parameters&) = delete;
    ~Parameters() { snd_pcm_hw_params_free(set_); }

    bool valid() const { return valid_; }
    bool accepts_rate(unsigned rate) const {
        return snd_pcm_hw_params_test_rate(pcm_, set_, rate, 0) == 0;
    }
    bool accepts_channels(unsigned count) const {
        return snd_pcm_hw_params_test_channels(pcm_, set_, count) == 0;
    }
    bool accepts_block(snd_pcm_uframes_t frames) const {
        return snd_pcm_hw_params_test_period_size(pcm_, set_, frames, 0) == 0;
    }
    unsigned fewest_channels() const {
        unsigned count = 0;
        snd_pcm_hw_params_get_channels_min(set_, &count);
        return count;
    }
    unsigned most_channels() const {
        unsigned count = 0;
        snd_pcm_hw_params_get_channels_max(set_, &count);
        return count;
    }
    snd_pcm_uframes_t smallest_block() const {
        snd_pcm_uframes_t frames = 0;
        int direction = 0;
        snd_pcm_hw_params_get_period_size_min(set_, &frames, &direction);
        return direction > 0 ? frames + 1 : frames;
    }
    snd_pcm_uframes_t largest_block() const {
        snd_pcm_uframes_t frames = 0;
        int direction = 0;
        snd_pcm_hw_params_get_period_size_max(set_, &frames, &direction);
        return direction < 0 ? frames - 1 : frames;
    }
    bool set_rate(unsigned rate) { return snd_pcm_hw_params_set_rate(pcm_, set_, rate, 0) == 0; }
    bool set_channels(unsigned count) {
        return snd_pcm_hw_params_set_channels(pcm_, set_, count) == 0;
    }
    bool set_blocks(unsigned count) {
        return snd_pcm_hw_params_set_periods(pcm_, set_, count, 0) == 0;
    }

  private:
    template <typename Value, std::size_t count, typename Set>
    bool set_first(const Value (&values)[count], Set set) {
        return std::ranges::any_of(values, [&](Value v) { return set(pcm_, set_, v) == 0; });
    }

    snd_pcm_t* pcm_;
    snd_pcm_hw_params_t* set_ = nullptr;
    bool valid_ = false;
};

struct Side {
    std::string pcm_name;
    Pcm pcm{nullptr, snd_pcm_close};
    int error = 0;
    std::vector<unsigned> own_rates;  ///< without conversion of rates

    void open(const std::string& name, snd_pcm_stream_t stream) {
        pcm.reset();
        snd_pcm_t* handle = nullptr;
        error = snd_pcm_open(&handle, name.c_str(), stream, SND_PCM_NONBLOCK);
        pcm.reset(error == 0 ? handle : nullptr);
        pcm_name = error == 0 ? name : std::string();
    }
};

bool any_rate(snd_pcm_t* pcm, unsigned rate) {
    snd_pcm_hw_params_t* all;
    snd_pcm_hw_params_alloca(&all);
    return snd_pcm_hw_params_any(pcm, all) >= 0 &&
           snd_pcm_hw_params_test_rate(pcm, all, rate, 0) == 0;
}

/// A device whose sample format or access is not the library's is opened through ALSA's
/// conversion, which is exact between integers.
Side open_side(const std::string& name, snd_pcm_stream_t stream) {
    Side side;
    if (name.empty()) return side;
    side.open(name, stream);
    if (!side.pcm) return side;
    std::ranges::copy_if(rates, std::back_inserter(side.own_rates),
                         [&](unsigned rate) { return any_rate(side.pcm.get(), rate); });
    if (Parameters(side.pcm.get()).valid()) return side;
    side.open("plug:'" + name + "'", stream);
    return side;
}

/// A sound server or a converter takes any number of channels; a card has its own.
bool leaves_channels_open(const Parameters& all, snd_pcm_t* pcm) {
    return snd_pcm_type(pcm) != SND_PCM_TYPE_HW && all.fewest_channels() <= 2 &&
           all.most_channels() > 2;
}

struct Pair {
    Side playback, capture;
    bool two_channels = false;

    std::vector<const Side*> sides() const {
        std::vector<const Side*> present;
        for (const Side* side : {&playback, &capture})
            if (side->pcm) present.push_back(side);
        return present;
    }
};

bool choose_two_channels(const Pair& pair) {
    bool open = false;
    for (const Side* side : pair.sides()) {
        const Parameters all(side->pcm.get());
        if (!all.accepts_channels(2)) return false;
        open = open || leaves_channels_open(all, side->pcm.get());
    }
    return open;
}

/// The library takes as many channels as there are.
unsigned channels_of(const Parameters& parameters, bool two_channels) {
    const unsigned most = parameters.most_channels();
    return two_channels || most > absurd_channels ? 2 : std::min(most, most_channels);
}

using Sides = std::vector<Parameters>;

bool all_accept(const Sides& sides, std::int32_t frames) {
    return std::ranges::all_of(sides, [=](const Parameters& side) {
        return side.accepts_block(static_cast<snd_pcm_uframes_t>(frames));
    });
}

/// The first size from `from` to `to` that all accept; more than `to` if there is none.
std::int32_t next_size(const Sides& sides, std::int32_t from, std::int32_t to) {
    while (from <= to && !all_accept(sides, from))
        ++from;
    return from;
}

/// False without a common size.
bool find_sizes(const Sides& sides, Offer& offer) {
    snd_pcm_uframes_t lowest = 1;
    snd_pcm_uframes_t highest = offer.rate / blocks_per_second;
    for (const Parameters& side : sides) {
        lowest = std::max(lowest, side.smallest_block());
        highest = std::min(highest, side.largest_block());
    }
    if (lowest > highest) return false;
    offer.largest = static_cast<std::int32_t>(highest);
    offer.smallest = next_size(sides, static_cast<std::int32_t>(lowest), offer.largest);
    while (offer.largest > offer.smallest && !all_accept(sides, offer.largest))
        --offer.largest;
    if (offer.smallest > offer.largest) return false;
    const std::int32_t second = next_size(sides, offer.smallest + 1, offer.largest);
    offer.step = second > offer.largest ? 0 : second - offer.smallest;
    const bool doubles = offer.step == offer.smallest && offer.step > 1 &&
                         std::has_single_bit(static_cast<unsigned>(offer.step));
    if (doubles && 3 * offer.step <= offer.largest && !all_accept(sides, 3 * offer.step))
        offer.step = -1;
    return true;
}

std::optional<Offer> offer_at(const Pair& pair, unsigned rate) {
    Offer offer{.rate = rate};
    Sides sides;
    for (const Side* side : pair.sides()) {
        if (std::ranges::find(side->own_rates, rate) == side->own_rates.end()) return {};
        Parameters& parameters = sides.emplace_back(side->pcm.get());
        if (!parameters.valid() || !parameters.set_rate(rate)) return {};
        const unsigned channels = channels_of(parameters, pair.two_channels);
        if (!parameters.set_channels(channels)) return {};
        (side == &pair.capture ? offer.inputs : offer.outputs) =
            static_cast<std::int32_t>(channels);
    }
    for (offer.blocks = fewest_blocks; offer.blocks <= most_blocks; ++offer.blocks) {
        Sides with_blocks = sides;
        const bool accepted = std::ranges::all_of(
            with_blocks, [&](Parameters& side) { return side.set_blocks(offer.blocks); });
        if (accepted && find_sizes(with_blocks, offer)) return offer;
    }
    return {};
}

std::vector<Offer> offers_of(Pair& pair) {
    pair.two_channels = choose_two_channels(pair);
    std::vector<Offer> offers;
    for (const unsigned rate : rates) {
        if (auto offer = offer_at(pair, rate)) offers.push_back(*offer);
    }
    return offers;
}

std::string fault_of(const DriverEntry& driver, const Side& side, bool is_input) {
    if (side.error == -EBUSY) return driver.name + " is in use by " + owner_of(driver, is_input);
    if (side.error == -ENODEV || side.error == -ENOENT || side.error == -ENXIO)
        return driver.name + " is not connected";
    return driver.name + " cannot be opened: " + snd_strerror(side.error);
}

}  // namespace

DeviceOffer ask_device(const DriverEntry& driver) {
    const ScopedSilence silence;
    Pair pair{.playback = open_side(driver.playback, SND_PCM_STREAM_PLAYBACK),
              .capture = open_side(driver.capture, SND_PCM_STREAM_CAPTURE)};
    // Of the default device one side may be missing; what a card has must open.
    const bool any_side = !driver.card && (pair.playback.pcm || pair.capture.pcm);
    for (const Side* side : {&pair.playback, &pair.capture}) {
        if (side->error != 0 && (!any_side || side->error == -EBUSY))
            return {.fault = fault_of(driver, *side, side == &pair.capture) + "."};
    }
    std::vector<Offer> offers = offers_of(pair);
    if (offers.empty() && pair.playback.pcm && pair.capture.pcm) {
        pair.capture = {};  // nothing in common: playing matters more
        offers = offers_of(pair);
    }
    if (offers.empty()) return {.fault = driver.name + " has no usable sample rate."};
    return {.playback = pair.playback.pcm_name,
            .capture = pair.capture.pcm_name,
            .two_channels = pair.two_channels,
            .offers = std::move(offers)};
}

}  // namespace tavistro::alsa
