#include "drivers/jack/jack_driver.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "drivers/base/driver_base.h"
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
        const auto frames = static_cast<std::int32_t>(client_.period_frames());
        return {.minimum = frames, .maximum = frames, .preferred = frames, .granularity = 0};
    }
    bool accepts_size(std::int32_t frames) const noexcept override {
        return static_cast<jack_nframes_t>(frames) == client_.period_frames();
    }
    double sample_rate() const noexcept override { return client_.rate(); }
    bool accepts_rate(double rate) const noexcept override { return rate == client_.rate(); }
    bool set_rate(double) noexcept override { return false; }
    std::int32_t latency(bool is_input) const noexcept override;
    std::int32_t prepare() override;
    void unprepare() noexcept override;
    std::int32_t start_periods() noexcept override;
    void stop_periods() noexcept override { client_.deactivate(); }

    TAVISTRO_REALTIME void on_period(jack_nframes_t frames) override;
    void on_missed_deadline() override { count_missed_deadline(); }
    void on_server_lost() override { request_reset(); }

    TAVISTRO_REALTIME void silence_ports(jack_nframes_t frames);
    TAVISTRO_REALTIME void count_position();
    TAVISTRO_REALTIME float* port_samples(std::size_t channel, jack_nframes_t frames) const {
        return static_cast<float*>(jack_port_get_buffer(ports_[channel], frames));
    }

    std::vector<jack_port_t*> ports_;  ///< of the channels
    jack_nframes_t rate_ = 0;          ///< does not change while prepared
    jack_nframes_t origin_ = 0;        ///< JACK frame time at position 0
    std::int64_t position_ = -1;       ///< frames; -1 before the first period

    JackClient client_{
        *this};  ///< last member: closed first, before its threads lose what they use
};

/// The largest latency of the physical ports of the open channels. The driver adds none.
std::int32_t JackDriver::latency(bool is_input) const noexcept {
    jack_nframes_t longest = 0;
    for (const Channel& channel : channels()) {
        if (channel.is_input == is_input)
            longest = std::max(longest, client_.physical_latency(is_input, channel.number));
    }
    return static_cast<std::int32_t>(longest);
}

std::int32_t JackDriver::prepare() {
    rate_ = client_.rate();
    ports_.reserve(channels().size());
    for (const Channel& channel : channels()) {
        const std::string name =
            (channel.is_input ? "in_" : "out_") + std::to_string(channel.number + 1);
        jack_port_t* port = client_.add_port(channel.is_input, name.c_str());
        if (port == nullptr) return kAsioNoMemory;
        ports_.push_back(port);
    }
    return kAsioOk;
}

void JackDriver::unprepare() noexcept {
    for (jack_port_t* port : ports_)
        client_.remove_port(port);
    ports_.clear();
}

std::int32_t JackDriver::start_periods() noexcept {
    position_ = -1;
    if (!client_.activate()) {
        set_error("The JACK server is no longer running.");
        return kAsioHardwareFault;
    }
    for (std::size_t i = 0; i < ports_.size(); ++i)
        client_.connect(ports_[i], channels()[i].is_input, channels()[i].number);
    return kAsioOk;
}

void JackDriver::on_period(jack_nframes_t frames) {
    if (frames != block_frames() || client_.rate() != rate_) {
        silence_ports(frames);
        // Repeat the request in every period: a host that is still opening the driver may miss the
        // first.
        request_reset_in_period();
        return;
    }
    count_position();
    const std::size_t played = half();
    const std::size_t bytes = frames * sizeof(float);
    for (std::size_t i = 0; i < ports_.size(); ++i) {
        Channel& channel = channels()[i];
        if (channel.is_input)
            std::memcpy(channel.half[played].data(), port_samples(i, frames), bytes);
    }
    switch_buffers(static_cast<std::uint64_t>(position_),
                   client_.frame_ns(origin_ + static_cast<jack_nframes_t>(position_)));
    for (std::size_t i = 0; i < ports_.size(); ++i) {
        const Channel& channel = channels()[i];
        if (!channel.is_input)
            std::memcpy(port_samples(i, frames), channel.half[played].data(), bytes);
    }
}

void JackDriver::silence_ports(jack_nframes_t frames) {
    for (std::size_t i = 0; i < ports_.size(); ++i) {
        if (!channels()[i].is_input) std::fill_n(port_samples(i, frames), frames, 0.0F);
    }
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
