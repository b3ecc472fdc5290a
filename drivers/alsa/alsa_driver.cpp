#include "drivers/alsa/alsa_driver.h"

#include <zita-alsa-pcmi.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "drivers/alsa/pcm_offer.h"
#include "drivers/base/driver_base.h"
#include "platform/clock.h"
#include "platform/realtime.h"
#include "platform/threads.h"

namespace tavistro::alsa {
namespace {

constexpr unsigned usual_rate = 48000;
constexpr std::int32_t usual_block = 128;
/// The library's wait ends after a second without a block: the card has stopped.
constexpr std::uint64_t longest_wait_ms = 900;
/// In a row. A card that starts again and again without a block would keep the processor.
constexpr int most_xruns = 100;
constexpr std::uint32_t reset_repeat_ms = 1000;

class AlsaDriver final : public drivers::DriverBase {
  public:
    explicit AlsaDriver(const DriverEntry& entry)
        : DriverBase(entry.class_id, entry.name), entry_(entry) {}
    ~AlsaDriver() override { dispose(); }

  private:
    std::string open_device() override;
    bool is_open() const noexcept override { return offer_ != nullptr; }
    /// A side that the card lacks has as many channels as the other: inputs are silent, outputs
    /// go nowhere.
    std::int32_t channel_count(bool is_input) const noexcept override {
        const std::int32_t own = is_input ? offer_->inputs : offer_->outputs;
        return own > 0 ? own : is_input ? offer_->outputs : offer_->inputs;
    }
    BufferSizes buffer_sizes() const noexcept override;
    bool accepts_size(std::int32_t frames) const noexcept override;
    double sample_rate() const noexcept override { return offer_ != nullptr ? offer_->rate : 0; }
    bool accepts_rate(double rate) const noexcept override { return offer_at(rate) != nullptr; }
    bool set_rate(double rate) noexcept override {
        offer_ = offer_at(rate);
        return true;
    }
    std::string rate_refusal(double rate) const override;
    std::int32_t latency(bool is_input) const noexcept override;
    std::int32_t prepare() override;
    void unprepare() noexcept override { card_.reset(); }
    std::int32_t start_periods() noexcept override;
    void stop_periods() noexcept override;

    const Offer* offer_at(double rate) const noexcept {
        const auto found = std::ranges::find(device_.offers, rate, &Offer::rate);
        return found == device_.offers.end() ? nullptr : &*found;
    }
    bool assign_channels();

    enum class Wait { block, end, lost };
    void run();
    TAVISTRO_REALTIME Wait wait_for_block();
    TAVISTRO_REALTIME void read_inputs();
    TAVISTRO_REALTIME void write_outputs(std::size_t played);

    const DriverEntry entry_;
    DeviceOffer device_;
    const Offer* offer_ = nullptr;  ///< the one of the sample rate; null: not open

    // While prepared.
    std::unique_ptr<Alsa_pcmi> card_;
    std::vector<Channel*> inputs_, outputs_;  ///< by the card's channels; null: not open

    platform::Thread thread_;
    std::atomic<bool> stopping_{false};
    platform::WorkerEvent stop_event_;
};

std::string AlsaDriver::open_device() {
    device_ = ask_device(entry_);
    if (!device_.fault.empty()) return device_.fault;
    offer_ = accepts_rate(usual_rate) ? offer_at(usual_rate) : &device_.offers.front();
    return {};
}

AlsaDriver::BufferSizes AlsaDriver::buffer_sizes() const noexcept {
    const std::int32_t step = offer_->step;
    std::int32_t preferred = offer_->smallest;
    while (preferred < usual_block && step != 0)
        preferred += step < 0 ? preferred : step;
    return {.minimum = offer_->smallest,
            .maximum = offer_->largest,
            .preferred = std::min(preferred, offer_->largest),
            .granularity = step};
}

bool AlsaDriver::accepts_size(std::int32_t frames) const noexcept {
    return frames >= offer_->smallest && frames <= offer_->largest;
}

std::string AlsaDriver::rate_refusal(double rate) const {
    constexpr std::size_t most_listed = 6;  // a message has 124 bytes
    std::string offered;
    for (const Offer& offer : device_.offers)
        offered += (offered.empty() ? "" : ", ") + std::to_string(offer.rate);
    if (device_.offers.size() > most_listed) {
        offered = std::to_string(device_.offers.front().rate) + " to " +
                  std::to_string(device_.offers.back().rate);
    }
    return entry_.name + " does not run at " + std::to_string(std::lround(rate)) + " Hz, but at " +
           offered + " Hz.";
}

/// The card's buffer is full of output when it has delivered the first block.
std::int32_t AlsaDriver::latency(bool is_input) const noexcept {
    const auto frames = static_cast<std::int32_t>(block_frames());
    if (is_input) return offer_->inputs > 0 ? frames : 0;
    return offer_->outputs > 0 ? frames * (static_cast<std::int32_t>(offer_->blocks) - 1) : 0;
}

std::int32_t AlsaDriver::prepare() {
    // The library would wait for another program to release the card.
    if (const DeviceOffer now = ask_device(entry_); !now.fault.empty()) {
        set_error(now.fault);
        return kAsioHardwareFault;
    }
    const auto name = [](const std::string& pcm) { return pcm.empty() ? nullptr : pcm.c_str(); };
    card_ = std::make_unique<Alsa_pcmi>(
        name(device_.playback), name(device_.capture), nullptr, offer_->rate,
        static_cast<unsigned>(block_frames()), offer_->blocks,
        device_.two_channels ? static_cast<unsigned>(Alsa_pcmi::FORCE_2CH) : 0U);
    if (card_->state() != Alsa_pcmi::STATE_OPEN) {
        refuse_size(static_cast<std::int32_t>(block_frames()));
        return kAsioInvalidMode;
    }
    return assign_channels() ? kAsioOk : kAsioInvalidParameter;
}

/// False if the host opens a channel twice.
bool AlsaDriver::assign_channels() {
    inputs_.assign(static_cast<std::size_t>(channel_count(true)), nullptr);
    outputs_.assign(static_cast<std::size_t>(channel_count(false)), nullptr);
    for (Channel& channel : channels()) {
        auto& side = channel.is_input ? inputs_ : outputs_;
        if (std::exchange(side[channel.number], &channel) != nullptr) return false;
    }
    return true;
}

std::int32_t AlsaDriver::start_periods() noexcept {
    stopping_ = false;
    stop_event_.wait_for_ms(0);
    if (card_->pcm_start() == 0 && thread_.start("tav-alsa", [this] { run(); })) return kAsioOk;
    card_->pcm_stop();
    set_error(entry_.name + " does not start.");
    return kAsioHardwareFault;
}

void AlsaDriver::stop_periods() noexcept {
    stopping_ = true;
    stop_event_.signal();
    thread_.join();
    card_->pcm_stop();
}

void AlsaDriver::run() {
    const platform::ScopedThreadRole role(platform::ThreadRole::audio_device);
    std::uint64_t position = 0;
    Wait wait = Wait::block;
    while ((wait = wait_for_block()) == Wait::block) {
        const std::size_t played = half();
        read_inputs();
        switch_buffers(position, platform::nanosecond_clock());
        write_outputs(played);
        position += block_frames();
    }
    if (wait == Wait::end) return;
    // Repeated: a host that is still opening the driver may miss the first.
    do
        request_reset();
    while (!stop_event_.wait_for_ms(reset_repeat_ms));
}

/// The library recovers from an xrun within its wait and then has no block.
AlsaDriver::Wait AlsaDriver::wait_for_block() {
    for (int xruns = 0; xruns < most_xruns;) {
        const std::uint64_t begin = platform::millisecond_tick();
        const snd_pcm_sframes_t available = card_->pcm_wait();
        if (stopping_) return Wait::end;
        if (available >= static_cast<snd_pcm_sframes_t>(block_frames())) return Wait::block;
        if (card_->state() != Alsa_pcmi::STATE_OPEN) return Wait::lost;
        if (available > 0) continue;
        if (platform::millisecond_tick() - begin >= longest_wait_ms) return Wait::lost;
        count_missed_deadline_in_period();
        ++xruns;
    }
    return Wait::lost;
}

/// In parts where the block crosses the end of the card's buffer.
void AlsaDriver::read_inputs() {
    for (std::size_t done = 0; offer_->inputs > 0 && done < block_frames();) {
        const int frames = card_->capt_init(block_frames() - done);
        if (frames <= 0) return;  // an xrun, which the next wait finds
        for (std::size_t i = 0; i < inputs_.size(); ++i) {
            if (inputs_[i] != nullptr)
                card_->capt_chan(static_cast<int>(i), inputs_[i]->half[half()].data() + done,
                                 frames);
        }
        card_->capt_done(frames);
        done += static_cast<std::size_t>(frames);
    }
}

void AlsaDriver::write_outputs(std::size_t played) {
    for (std::size_t done = 0; offer_->outputs > 0 && done < block_frames();) {
        const int frames = card_->play_init(block_frames() - done);
        if (frames <= 0) return;
        for (std::size_t i = 0; i < outputs_.size(); ++i) {
            const auto channel = static_cast<int>(i);
            if (outputs_[i] != nullptr)
                card_->play_chan(channel, outputs_[i]->half[played].data() + done, frames);
            else
                card_->clear_chan(channel, frames);
        }
        card_->play_done(frames);
        done += static_cast<std::size_t>(frames);
    }
}

}  // namespace

AsioDriver* create_alsa_driver(const DriverEntry& entry) noexcept try {
    return new AlsaDriver(entry);
} catch (const std::bad_alloc&) {
    return nullptr;
}

}  // namespace tavistro::alsa
