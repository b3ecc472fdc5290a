#include "drivers/jack/jack_driver.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <limits>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "drivers/base/driver_base.h"
#include "drivers/base/reblocker.h"
#include "drivers/jack/jack_client.h"

namespace tavistro::jack {
namespace {

class JackDriver final : public drivers::DriverBase, private JackListener {
  public:
    JackDriver() : DriverBase(class_id, driver_name) {}
    ~JackDriver() override { dispose(); }

  private:
    std::string open_device() override { return client_.open(); }
    bool is_open() const noexcept override { return client_.is_open(); }
    std::int32_t channel_count(bool is_input) const noexcept override {
        return std::max(fewest_channels,
                        static_cast<std::int32_t>(client_.physical_count(is_input)));
    }
    BufferSizes buffer_sizes() const noexcept override {
        const auto period = static_cast<std::int32_t>(client_.period_frames());
        return {.minimum = smallest_block,
                .maximum = largest_block,
                .preferred = std::clamp(period, smallest_block, largest_block),
                .granularity = 1};
    }
    bool accepts_size(std::int32_t frames) const noexcept override {
        return frames >= smallest_block && frames <= largest_block;
    }
    double sample_rate() const noexcept override { return client_.rate(); }
    bool accepts_rate(double rate) const noexcept override { return rate == client_.rate(); }
    bool set_rate(double) noexcept override { return false; }
    std::string rate_refusal(double rate) const override;
    std::int32_t latency(bool is_input) const noexcept override;
    std::int32_t prepare() override;
    void unprepare() noexcept override;
    std::int32_t start_periods() noexcept override;
    void stop_periods() noexcept override { client_.deactivate(); }

    TAVISTRO_REALTIME void on_period(jack_nframes_t frames) override;
    void on_new_period() override { announce_latencies(); }
    void on_latencies(jack_latency_callback_mode_t mode) override;
    void on_missed_deadline() override { count_missed_deadline(); }
    void on_server_lost() override { request_reset(); }

    TAVISTRO_REALTIME void count_position();
    TAVISTRO_REALTIME void for_each(bool is_input, auto copy);
    jack_nframes_t delay_frames() const noexcept {
        const std::size_t period = client_.period_frames();
        return static_cast<jack_nframes_t>(drivers::reblocking_delay(period, block_frames()));
    }

    /// A channel's port and, within a period, its samples.
    struct Port {
        jack_port_t* handle;
        float* samples;
    };
    /// The two sides that the re-blocking is between.
    struct Sides;

    std::mutex ports_mutex_;   ///< never locked in a period, nor during a request to the server
    std::vector<Port> ports_;  ///< of the channels; changes only with the mutex and without periods
    drivers::Reblocker blocks_;
    jack_nframes_t rate_ = 0;     ///< does not change while prepared
    jack_nframes_t origin_ = 0;   ///< JACK frame time at position 0
    std::int64_t position_ = -1;  ///< of the period, in frames; -1 before the first

    JackClient client_{
        *this};  ///< last member: closed first, before its threads lose what they use
};

/// The largest latency of the physical ports of the open channels. The delay of the re-blocking is
/// counted with the outputs: the sum of both is the delay from outside to outside.
std::int32_t JackDriver::latency(bool is_input) const noexcept {
    jack_nframes_t longest = 0;
    for (const Channel& channel : channels()) {
        if (channel.is_input == is_input)
            longest = std::max(longest, client_.physical_latency(is_input, channel.number));
    }
    return static_cast<std::int32_t>(longest + (is_input ? 0 : delay_frames()));
}

std::string JackDriver::rate_refusal(double rate) const {
    std::array<char, 124> text{};
    std::snprintf(text.data(), text.size(),
                  JackClient::is_pipewire()
                      ? "PipeWire runs at %u Hz, not at %.0f: pw-metadata -n settings 0 "
                        "clock.force-rate %.0f changes it."
                      : "The JACK server runs at %u Hz, not at %.0f: start it with jackd -d alsa "
                        "-r %.0f.",
                  client_.rate(), rate, rate);
    return text.data();
}

std::int32_t JackDriver::prepare() {
    if (const std::string fault = client_.ask_for_period(block_frames()); !fault.empty()) {
        set_error(fault);
        return kAsioHardwareFault;
    }
    rate_ = client_.rate();
    std::vector<Port> ports;
    ports.reserve(channels().size());
    for (const Channel& channel : channels()) {
        const std::string name =
            (channel.is_input ? "in_" : "out_") + std::to_string(channel.number + 1);
        ports.push_back({client_.add_port(channel.is_input, name.c_str()), nullptr});
    }
    const bool is_complete = std::ranges::all_of(ports, &Port::handle);
    const std::lock_guard lock(ports_mutex_);
    ports_ = std::move(ports);
    return is_complete ? kAsioOk : kAsioNoMemory;
}

void JackDriver::unprepare() noexcept {
    std::vector<Port> ports;
    {
        const std::lock_guard lock(ports_mutex_);
        ports_.swap(ports);
    }
    for (const Port& port : ports) {
        if (port.handle != nullptr) client_.remove_port(port.handle);
    }
}

std::int32_t JackDriver::start_periods() noexcept {
    position_ = -1;
    blocks_.start(block_frames());
    if (!client_.activate()) {
        set_error("The JACK server is no longer running.");
        return kAsioHardwareFault;
    }
    for (std::size_t i = 0; i < ports_.size(); ++i)
        client_.connect(ports_[i].handle, channels()[i].is_input, channels()[i].number);
    return kAsioOk;
}

/// What is heard at our inputs leaves our outputs later by the delay of the re-blocking.
void JackDriver::on_latencies(jack_latency_callback_mode_t mode) {
    const bool from_inputs = mode == JackCaptureLatency;
    const std::lock_guard lock(ports_mutex_);
    jack_latency_range_t all{std::numeric_limits<jack_nframes_t>::max(), 0};
    for (std::size_t i = 0; i < ports_.size(); ++i) {
        if (channels()[i].is_input != from_inputs || ports_[i].handle == nullptr) continue;
        jack_latency_range_t range{};
        jack_port_get_latency_range(ports_[i].handle, mode, &range);
        all = {std::min(all.min, range.min), std::max(all.max, range.max)};
    }
    if (all.min > all.max) return;
    all = {all.min + delay_frames(), all.max + delay_frames()};
    for (std::size_t i = 0; i < ports_.size(); ++i) {
        if (channels()[i].is_input != from_inputs && ports_[i].handle != nullptr)
            jack_port_set_latency_range(ports_[i].handle, mode, &all);
    }
}

void JackDriver::for_each(bool is_input, auto copy) {
    for (std::size_t i = 0; i < ports_.size(); ++i) {
        if (channels()[i].is_input == is_input) copy(channels()[i], ports_[i].samples);
    }
}

struct JackDriver::Sides {
    JackDriver& driver;

    TAVISTRO_REALTIME void read_inputs(std::size_t block_at, std::size_t period_at,
                                       std::size_t count) {
        driver.for_each(true, [&](Channel& channel, const float* port) {
            std::memcpy(channel.half[driver.half()].data() + block_at, port + period_at,
                        count * sizeof(float));
        });
    }
    TAVISTRO_REALTIME void run_block(std::size_t period_at) {
        const std::int64_t position = driver.position_ + static_cast<std::int64_t>(period_at) -
                                      static_cast<std::int64_t>(driver.block_frames());
        driver.switch_buffers(
            static_cast<std::uint64_t>(position),
            driver.client_.frame_ns(driver.origin_ + static_cast<jack_nframes_t>(position)));
    }
    TAVISTRO_REALTIME void write_outputs(std::size_t block_at, std::size_t period_at,
                                         std::size_t count) {
        driver.for_each(false, [&](const Channel& channel, float* port) {
            std::memcpy(port + period_at, channel.half[1 - driver.half()].data() + block_at,
                        count * sizeof(float));
        });
    }
    TAVISTRO_REALTIME void write_silence(std::size_t period_at, std::size_t count) {
        driver.for_each(false, [&](const Channel&, float* port) {
            std::fill_n(port + period_at, count, 0.0F);
        });
    }
};

void JackDriver::on_period(jack_nframes_t frames) {
    for (Port& port : ports_)
        port.samples = static_cast<float*>(jack_port_get_buffer(port.handle, frames));
    Sides sides{*this};
    if (client_.rate() != rate_) {
        sides.write_silence(0, frames);
        // Repeat the request in every period: a host that is still opening the driver may miss the
        // first.
        request_reset_in_period();
        return;
    }
    count_position();
    if (blocks_.run_period(frames, sides)) count_missed_deadline_in_period();
}

/// JACK's frame time wraps after 2^32 frames; the position does not.
void JackDriver::count_position() {
    const jack_nframes_t now = client_.period_begin();
    if (position_ < 0) {
        origin_ = now;
        position_ = 0;
    }
    position_ += now - origin_ - static_cast<jack_nframes_t>(position_);
}

}  // namespace

AsioDriver* create_jack_driver() noexcept try {
    return new (std::nothrow) JackDriver;
} catch (const std::bad_alloc&) {
    return nullptr;
}

}  // namespace tavistro::jack
