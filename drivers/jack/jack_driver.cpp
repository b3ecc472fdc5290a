#include "drivers/jack/jack_driver.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <exception>
#include <mutex>
#include <new>
#include <span>
#include <vector>

#include "drivers/jack/jack_client.h"

namespace tavistro::jack {
namespace {

constexpr std::int32_t float32_little_endian = 19;
constexpr std::size_t error_bytes = 124;

constexpr std::int32_t no_interface = static_cast<std::int32_t>(0x80004002);

AsioCount64 count64(std::uint64_t value) {
    return {static_cast<std::uint32_t>(value >> 32), static_cast<std::uint32_t>(value)};
}

using ErrorText = std::array<char, error_bytes>;

void set_error(ErrorText& error, const char* text) {
    std::snprintf(error.data(), error.size(), "%s", text);
}

struct Channel {
    bool is_input;
    std::size_t number;
    jack_port_t* port;
    std::vector<float> half[2];

    float* port_samples(jack_nframes_t frames) const {
        return static_cast<float*>(jack_port_get_buffer(port, frames));
    }
    std::size_t bytes() const { return half[0].size() * sizeof(float); }
};

class JackDriver final : public AsioDriver, private JackListener {
  public:
    ~JackDriver() { release_buffers(); }

    std::int32_t QueryInterface(const void* interface_id, void** object) noexcept override {
        const bool known = std::memcmp(interface_id, class_id.data(), class_id.size()) == 0;
        *object = known ? static_cast<AsioDriver*>(this) : nullptr;
        if (known) AddRef();
        return known ? kAsioOk : no_interface;
    }
    std::uint32_t AddRef() noexcept override { return ++references_; }
    std::uint32_t Release() noexcept override {
        const std::uint32_t left = --references_;
        if (left == 0) delete this;
        return left;
    }

    std::int32_t init(void*) noexcept override;
    void getDriverName(char* name) noexcept override { std::strcpy(name, driver_name); }
    std::int32_t getDriverVersion() noexcept override { return 1; }
    /// The last error or, without one, the number of xruns.
    void getErrorMessage(char* text) noexcept override {
        if (error_[0] == '\0') {
            std::snprintf(text, error_bytes, "%u missed deadlines.", missed_deadlines_.load());
        } else {
            std::memcpy(text, error_.data(), error_.size());
        }
    }
    std::int32_t start() noexcept override;
    std::int32_t stop() noexcept override;
    std::int32_t getChannels(std::int32_t* inputs, std::int32_t* outputs) noexcept override;
    std::int32_t getLatencies(std::int32_t* inputs, std::int32_t* outputs) noexcept override;
    std::int32_t getBufferSize(std::int32_t* minimum, std::int32_t* maximum,
                               std::int32_t* preferred,
                               std::int32_t* granularity) noexcept override;
    std::int32_t canSampleRate(double rate) noexcept override {
        return client_.is_open() && rate == client_.rate() ? kAsioOk : kAsioNoClock;
    }
    std::int32_t getSampleRate(double* rate) noexcept override {
        *rate = client_.rate();
        return client_.is_open() ? kAsioOk : kAsioNoClock;
    }
    std::int32_t setSampleRate(double rate) noexcept override { return canSampleRate(rate); }
    std::int32_t getClockSources(AsioClockSource* sources, std::int32_t* count) noexcept override;
    std::int32_t setClockSource(std::int32_t index) noexcept override {
        return index == 0 ? kAsioOk : kAsioInvalidParameter;
    }
    std::int32_t getSamplePosition(AsioCount64* samples,
                                   AsioCount64* nanoseconds) noexcept override;
    std::int32_t getChannelInfo(AsioChannelInfo* info) noexcept override;
    std::int32_t createBuffers(AsioBufferInfo* channels, std::int32_t channel_count,
                               std::int32_t frames, AsioCallbacks* callbacks) noexcept override;
    std::int32_t disposeBuffers() noexcept override;
    std::int32_t controlPanel() noexcept override { return kAsioNotPresent; }
    std::int32_t future(std::int32_t, void*) noexcept override { return kAsioInvalidParameter; }
    /// Not needed: JACK takes the outputs when the buffer switch returns.
    std::int32_t outputReady() noexcept override { return kAsioNotPresent; }

  private:
    enum class Stage { created, initialised, prepared, running };

    TAVISTRO_REALTIME void on_period(jack_nframes_t frames) override;
    void on_missed_deadline() override {
        ++missed_deadlines_;
        tell(kAsioOverload);
    }
    void on_server_lost() override { tell(kAsioResetRequest); }

    std::int32_t channel_count(bool is_input) const {
        return std::max(fewest_channels,
                        static_cast<std::int32_t>(client_.physical_count(is_input)));
    }
    bool exists(bool is_input, std::int32_t channel) const {
        return channel >= 0 && channel < channel_count(is_input);
    }
    std::int32_t latency(bool is_input) const;
    bool make_channels(std::span<AsioBufferInfo> wanted);
    bool make_channel(AsioBufferInfo& info);
    void release_buffers();
    void tell(std::int32_t selector);

    TAVISTRO_REALTIME void silence_ports(jack_nframes_t frames);
    TAVISTRO_REALTIME void count_position();
    TAVISTRO_REALTIME void switch_buffers();
    TAVISTRO_REALTIME std::uint64_t position_ns() const {
        return client_.frame_ns(origin_ + static_cast<jack_nframes_t>(position_));
    }

    std::atomic<std::uint32_t> references_{1};
    Stage stage_ = Stage::created;
    ErrorText error_{};
    std::atomic<unsigned> missed_deadlines_{
        0};  ///< xruns of all clients of the server since init()

    // Set by createBuffers(). The process thread reads them, so they do not change while it runs.
    jack_nframes_t frames_ = 0;
    jack_nframes_t rate_ = 0;
    bool with_time_info_ = false;
    std::vector<Channel> channels_;
    const AsioCallbacks* callbacks_ = nullptr;

    std::mutex notice_mutex_;                  ///< never locked by the process thread
    const AsioCallbacks* notified_ = nullptr;  ///< guarded by the mutex; null: no host to notify
    bool overload_wanted_ = false;             ///< guarded by the mutex

    std::size_t half_ = 0;                   ///< buffer half of the next period
    jack_nframes_t origin_ = 0;              ///< JACK frame time at position 0
    std::atomic<std::int64_t> position_{0};  ///< frames; -1 before the first period

    JackClient client_{
        *this};  ///< last member: closed first, before its threads lose what they use
};

std::int32_t JackDriver::init(void*) noexcept try {
    if (stage_ != Stage::created) return 0;
    stage_ = Stage::initialised;
    const std::string refusal = client_.open();
    set_error(error_, refusal.c_str());
    return refusal.empty() ? 1 : 0;
} catch (const std::exception&) {
    set_error(error_, "Not enough memory.");
    return 0;
}

std::int32_t JackDriver::getChannels(std::int32_t* inputs, std::int32_t* outputs) noexcept {
    *inputs = channel_count(true);
    *outputs = channel_count(false);
    return client_.is_open() ? kAsioOk : kAsioNotPresent;
}

std::int32_t JackDriver::getLatencies(std::int32_t* inputs, std::int32_t* outputs) noexcept {
    if (stage_ < Stage::prepared) return kAsioInvalidMode;
    *inputs = latency(true);
    *outputs = latency(false);
    return kAsioOk;
}

/// The largest latency of the physical ports of the open channels. The driver adds none.
std::int32_t JackDriver::latency(bool is_input) const {
    jack_nframes_t longest = 0;
    for (const Channel& channel : channels_) {
        if (channel.is_input == is_input)
            longest = std::max(longest, client_.physical_latency(is_input, channel.number));
    }
    return static_cast<std::int32_t>(longest);
}

std::int32_t JackDriver::getBufferSize(std::int32_t* minimum, std::int32_t* maximum,
                                       std::int32_t* preferred,
                                       std::int32_t* granularity) noexcept {
    *minimum = *maximum = *preferred = static_cast<std::int32_t>(client_.period_frames());
    *granularity = 0;
    return client_.is_open() ? kAsioOk : kAsioNotPresent;
}

std::int32_t JackDriver::getClockSources(AsioClockSource* sources, std::int32_t* count) noexcept {
    if (*count < 1) return kAsioInvalidParameter;
    *count = 1;
    *sources = {.index = 0, .channel = -1, .group = -1, .isCurrent = 1, .name = "JACK"};
    return kAsioOk;
}

std::int32_t JackDriver::getSamplePosition(AsioCount64* samples,
                                           AsioCount64* nanoseconds) noexcept {
    if (stage_ != Stage::running || position_ < 0) return kAsioNotAdvancing;
    *samples = count64(static_cast<std::uint64_t>(position_.load()));
    *nanoseconds = count64(position_ns());
    return kAsioOk;
}

std::int32_t JackDriver::getChannelInfo(AsioChannelInfo* info) noexcept {
    const bool is_input = info->isInput != 0;
    if (!client_.is_open()) return kAsioNotPresent;
    if (!exists(is_input, info->channel)) return kAsioInvalidParameter;
    info->isActive = std::ranges::any_of(channels_, [&](const Channel& channel) {
        return channel.is_input == is_input &&
               channel.number == static_cast<std::size_t>(info->channel);
    });
    info->group = 0;
    info->type = float32_little_endian;
    std::snprintf(info->name, sizeof(info->name), "%s_%d", is_input ? "in" : "out",
                  info->channel + 1);
    return kAsioOk;
}

std::int32_t JackDriver::createBuffers(AsioBufferInfo* channels, std::int32_t channel_count,
                                       std::int32_t frames, AsioCallbacks* callbacks) noexcept {
    if (stage_ != Stage::initialised || frames < 1 ||
        static_cast<jack_nframes_t>(frames) != client_.period_frames())
        return kAsioInvalidMode;
    if (channel_count < 1) return kAsioInvalidParameter;
    const std::span wanted(channels, static_cast<std::size_t>(channel_count));
    for (const AsioBufferInfo& info : wanted) {
        if (!exists(info.isInput != 0, info.channel)) return kAsioInvalidParameter;
    }
    frames_ = static_cast<jack_nframes_t>(frames);
    rate_ = client_.rate();
    callbacks_ = callbacks;
    stage_ = Stage::prepared;
    if (!make_channels(wanted)) {
        release_buffers();
        return kAsioNoMemory;
    }
    with_time_info_ = callbacks->asioMessage(kAsioSupportsTimeInfo, 0, nullptr, nullptr) != 0;
    const bool overload_wanted =
        callbacks->asioMessage(kAsioSelectorSupported, kAsioOverload, nullptr, nullptr) != 0;
    const std::lock_guard lock(notice_mutex_);
    overload_wanted_ = overload_wanted;
    notified_ = callbacks;
    return kAsioOk;
}

bool JackDriver::make_channels(std::span<AsioBufferInfo> wanted) try {
    channels_.reserve(wanted.size());
    return std::ranges::all_of(wanted, [this](AsioBufferInfo& info) { return make_channel(info); });
} catch (const std::bad_alloc&) {
    return false;
}

bool JackDriver::make_channel(AsioBufferInfo& info) {
    AsioChannelInfo named{};
    named.channel = info.channel;
    named.isInput = info.isInput;
    getChannelInfo(&named);
    const bool is_input = info.isInput != 0;
    jack_port_t* port = client_.add_port(is_input, named.name);
    if (port == nullptr) return false;
    Channel& channel =
        channels_.emplace_back(Channel{is_input, static_cast<std::size_t>(info.channel), port, {}});
    for (const std::size_t half : {0U, 1U}) {
        channel.half[half].assign(frames_, 0.0F);
        info.half[half] = channel.half[half].data();
    }
    return true;
}

std::int32_t JackDriver::disposeBuffers() noexcept {
    const bool prepared = stage_ >= Stage::prepared;
    release_buffers();
    return prepared ? kAsioOk : kAsioInvalidMode;
}

void JackDriver::release_buffers() {
    stop();
    {
        const std::lock_guard lock(notice_mutex_);
        notified_ = nullptr;
    }
    for (const Channel& channel : channels_)
        client_.remove_port(channel.port);
    channels_.clear();
    stage_ = std::min(stage_, Stage::initialised);
}

std::int32_t JackDriver::start() noexcept {
    if (stage_ != Stage::prepared) return kAsioInvalidMode;
    half_ = 0;
    position_ = -1;
    if (!client_.activate()) {
        set_error(error_, "The JACK server is no longer running.");
        return kAsioHardwareFault;
    }
    stage_ = Stage::running;
    for (const Channel& channel : channels_)
        client_.connect(channel.port, channel.is_input, channel.number);
    return kAsioOk;
}

std::int32_t JackDriver::stop() noexcept {
    if (stage_ != Stage::running) return kAsioInvalidMode;
    client_.deactivate();
    stage_ = Stage::prepared;
    return kAsioOk;
}

/// Any thread may call this: hosts only take note of the message and handle it on their own thread.
void JackDriver::tell(std::int32_t selector) {
    const std::lock_guard lock(notice_mutex_);
    if (notified_ == nullptr || (selector == kAsioOverload && !overload_wanted_)) return;
    notified_->asioMessage(selector, 0, nullptr, nullptr);
}

void JackDriver::on_period(jack_nframes_t frames) {
    if (frames != frames_ || client_.rate() != rate_) {
        silence_ports(frames);
        // Repeat the request in every period: a host that is still opening the driver may miss the
        // first.
        callbacks_->asioMessage(kAsioResetRequest, 0, nullptr, nullptr);
        return;
    }
    count_position();
    for (Channel& channel : channels_) {
        if (channel.is_input)
            std::memcpy(channel.half[half_].data(), channel.port_samples(frames), channel.bytes());
    }
    switch_buffers();
    for (const Channel& channel : channels_) {
        if (!channel.is_input)
            std::memcpy(channel.port_samples(frames), channel.half[half_].data(), channel.bytes());
    }
    half_ = 1 - half_;
}

void JackDriver::silence_ports(jack_nframes_t frames) {
    for (const Channel& channel : channels_) {
        if (!channel.is_input) std::fill_n(channel.port_samples(frames), frames, 0.0F);
    }
}

/// JACK's frame time wraps after 2^32 frames; the position does not.
void JackDriver::count_position() {
    const jack_nframes_t now = client_.period_begin();
    if (position_ < 0) {
        origin_ = now;
        position_ = 0;
    }
    const jack_nframes_t since = now - origin_ - static_cast<jack_nframes_t>(position_);
    position_ += since;
}

void JackDriver::switch_buffers() {
    const auto half = static_cast<std::int32_t>(half_);
    if (!with_time_info_) return callbacks_->bufferSwitch(half, 1);
    AsioTimeRecord time{};
    time.speed = 1.0;
    time.systemTime = count64(position_ns());
    time.samplePosition = count64(static_cast<std::uint64_t>(position_.load()));
    time.sampleRate = rate_;
    time.flags =
        kAsioSystemTimeValid | kAsioSamplePositionValid | kAsioSampleRateValid | kAsioSpeedValid;
    callbacks_->bufferSwitchTimeInfo(&time, half, 1);
}

}  // namespace

AsioDriver* create_jack_driver() noexcept {
    return new (std::nothrow) JackDriver;
}

}  // namespace tavistro::jack
