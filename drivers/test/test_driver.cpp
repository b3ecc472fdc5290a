#include "drivers/test/test_driver.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <chrono>
#include <cstring>
#include <exception>
#include <new>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "drivers/test/driver_control.h"
#include "drivers/test/raw_samples.h"
#include "platform/threads.h"

namespace tavistro::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr double lowest_rate = 44100;
constexpr double highest_rate = 192000;
constexpr std::uint8_t noise_byte = 0x5A;
constexpr std::uint8_t guard_byte = 0xA5;
/// A delayed thread catches up with at most this much time.
constexpr std::chrono::seconds catch_up_limit{1};

constexpr std::int32_t no_interface = static_cast<std::int32_t>(0x80004002);
constexpr std::array<std::uint8_t, 16> unknown_interface{0,    0, 0, 0, 0, 0, 0, 0,
                                                         0xC0, 0, 0, 0, 0, 0, 0, 0x46};

AsioCount64 count64(std::int64_t value) {
    const auto bits = static_cast<std::uint64_t>(value);
    return {static_cast<std::uint32_t>(bits >> 32), static_cast<std::uint32_t>(bits)};
}

std::int64_t system_ns() {
    return std::chrono::nanoseconds(Clock::now().time_since_epoch()).count();
}

template <typename Function>
void on_other_thread(const Function& function) {
    std::thread([&] { function(); }).join();
}

struct Channel {
    bool is_input;
    std::int32_t number;
    std::int32_t type;
    std::size_t half_bytes;
    std::vector<std::uint8_t> half[2];  ///< followed by guard bytes
    const Channel* looped_from;         ///< null: constant level

    RawSamples samples(std::size_t index) { return RawSamples(half[index]).first(half_bytes); }
    std::span<const std::uint8_t> samples(std::size_t index) const {
        return std::span(half[index]).first(half_bytes);
    }
};

/// Bytes of one buffer half. The one-bit types have eight frames per byte.
std::size_t bytes_of(std::int32_t type, std::size_t frames) {
    return type == 32 || type == 33 ? frames / 8 : sample_bytes(type) * frames;
}

class TestDriver final : public AsioDriver {
  public:
    TestDriver() { control_.count_object(1); }
    ~TestDriver() {
        release_buffers();
        control_.count_object(-1);
    }

    std::int32_t QueryInterface(const void* interface_id, void** object) noexcept override {
        const auto is = [&](const auto& id) {
            return std::memcmp(interface_id, id.data(), id.size()) == 0;
        };
        const bool known = is(driver_class_id) || is(unknown_interface);
        *object = known ? this : nullptr;
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
    void getErrorMessage(char* text) noexcept override { std::strcpy(text, "Told to fail."); }
    std::int32_t start() noexcept override;
    std::int32_t stop() noexcept override;
    std::int32_t getChannels(std::int32_t* inputs, std::int32_t* outputs) noexcept override;
    std::int32_t getLatencies(std::int32_t* inputs, std::int32_t* outputs) noexcept override {
        *inputs = *outputs = frames_;
        return kAsioOk;
    }
    std::int32_t getBufferSize(std::int32_t* minimum, std::int32_t* maximum,
                               std::int32_t* preferred,
                               std::int32_t* granularity) noexcept override;
    std::int32_t canSampleRate(double rate) noexcept override {
        const bool in_range = rate >= lowest_rate && rate <= highest_rate;
        return in_range && options_.number("fixed_rate") != 1 ? kAsioOk : kAsioNoClock;
    }
    std::int32_t getSampleRate(double* rate) noexcept override;
    std::int32_t setSampleRate(double rate) noexcept override;
    std::int32_t getClockSources(AsioClockSource*, std::int32_t*) noexcept override {
        return kAsioNotPresent;
    }
    std::int32_t setClockSource(std::int32_t) noexcept override { return kAsioNotPresent; }
    std::int32_t getSamplePosition(AsioCount64* samples,
                                   AsioCount64* nanoseconds) noexcept override {
        *samples = count64(position_frames_);
        *nanoseconds = count64(system_ns());
        return stage_ == Stage::running ? kAsioOk : kAsioNotAdvancing;
    }
    std::int32_t getChannelInfo(AsioChannelInfo* info) noexcept override;
    std::int32_t createBuffers(AsioBufferInfo* channels, std::int32_t channel_count,
                               std::int32_t frames, AsioCallbacks* callbacks) noexcept override;
    std::int32_t disposeBuffers() noexcept override;
    std::int32_t controlPanel() noexcept override { return kAsioNotPresent; }
    std::int32_t future(std::int32_t, void*) noexcept override { return kAsioInvalidParameter; }
    std::int32_t outputReady() noexcept override;

  private:
    enum class Stage { created, initialised, prepared, running };

    bool exists(bool is_input, std::int32_t channel) const {
        return channel >= 0 && channel < options_.number(is_input ? "inputs" : "outputs");
    }
    std::int32_t type_of(bool is_input, std::int32_t channel) const {
        return options_.entry(is_input ? "input_types" : "output_types", channel);
    }
    const Channel* find(bool is_input, std::int32_t number) const;
    bool accepts_size(std::int32_t frames) const;
    void make_channels(std::span<AsioBufferInfo> wanted, std::int32_t frames);
    void ask_host();
    void end_run();
    void release_buffers();

    void run_periods();
    void serve_commands();
    void run_period();
    void feed_inputs();
    void switch_buffers(std::int32_t index);
    template <typename Function>
    void call_host(const Function& function) const {
        if (foreign_thread_) return on_other_thread(function);
        function();
    }

    DriverControl& control_ = DriverControl::instance();
    std::atomic<std::uint32_t> references_{1};
    DriverOptions options_ = control_.options();
    Stage stage_ = Stage::created;
    std::atomic<double> rate_{0};
    std::int32_t frames_ = 0;
    AsioCallbacks* callbacks_ = nullptr;
    bool with_time_info_ = false;
    bool foreign_thread_ = false;
    std::vector<Channel> channels_;

    std::thread thread_;
    std::atomic<bool> running_{false};
    std::size_t half_ = 0;  ///< buffer half of the next period
    std::atomic<std::int64_t> position_frames_{0};
};

std::int32_t TestDriver::init(void*) noexcept {
    const std::int32_t answer = control_.enter("init");
    options_ = control_.options();
    foreign_thread_ = options_.on("foreign_thread");
    std::this_thread::sleep_for(std::chrono::milliseconds(options_.number("init_delay_ms")));
    if (answer != kAsioOk || stage_ != Stage::created) return 0;
    rate_ = options_.value("rate");
    stage_ = Stage::initialised;
    return 1;
}

std::int32_t TestDriver::getChannels(std::int32_t* inputs, std::int32_t* outputs) noexcept {
    *inputs = options_.number("inputs");
    *outputs = options_.number("outputs");
    return control_.enter("getChannels");
}

std::int32_t TestDriver::getBufferSize(std::int32_t* minimum, std::int32_t* maximum,
                                       std::int32_t* preferred,
                                       std::int32_t* granularity) noexcept {
    *minimum = options_.number("minimum_frames");
    *maximum = options_.number("maximum_frames");
    *preferred = options_.number("preferred_frames");
    *granularity = options_.number("granularity");
    return control_.enter("getBufferSize");
}

std::int32_t TestDriver::getSampleRate(double* rate) noexcept {
    *rate = rate_;
    return control_.enter("getSampleRate");
}

std::int32_t TestDriver::setSampleRate(double rate) noexcept {
    if (const std::int32_t error = control_.enter("setSampleRate")) return error;
    if (canSampleRate(rate) != kAsioOk) return kAsioNoClock;
    if (!options_.on("fixed_rate")) rate_ = rate;
    return kAsioOk;
}

std::int32_t TestDriver::getChannelInfo(AsioChannelInfo* info) noexcept {
    const bool is_input = info->isInput != 0;
    if (const std::int32_t error = control_.enter(is_input ? "getInputInfo" : "getOutputInfo"))
        return error;
    if (!exists(is_input, info->channel)) return kAsioInvalidParameter;
    info->isActive = find(is_input, info->channel) != nullptr;
    info->group = 0;
    info->type = type_of(is_input, info->channel);
    std::memset(info->name, 'n', sizeof(info->name));  // deliberately without a terminating NUL
    return kAsioOk;
}

std::int32_t TestDriver::createBuffers(AsioBufferInfo* channels, std::int32_t channel_count,
                                       std::int32_t frames, AsioCallbacks* callbacks) noexcept {
    if (const std::int32_t error = control_.enter("createBuffers")) return error;
    if (stage_ != Stage::initialised || !accepts_size(frames)) return kAsioInvalidMode;
    const std::span wanted(channels, static_cast<std::size_t>(channel_count));
    for (const AsioBufferInfo& info : wanted) {
        control_.note((info.isInput != 0 ? "in" : "out") + std::to_string(info.channel));
        if (!exists(info.isInput != 0, info.channel)) return kAsioInvalidParameter;
    }
    make_channels(wanted, frames);
    frames_ = frames;
    callbacks_ = callbacks;
    control_.set_host(callbacks);
    stage_ = Stage::prepared;
    ask_host();
    if (options_.on("callback_in_create")) on_other_thread([this] { switch_buffers(0); });
    return kAsioOk;
}

std::int32_t TestDriver::disposeBuffers() noexcept {
    const std::int32_t answer = control_.enter("disposeBuffers");
    const bool prepared = stage_ >= Stage::prepared;
    if (prepared && options_.on("scribbles")) *callbacks_ = {};
    release_buffers();
    return answer == kAsioOk && !prepared ? kAsioInvalidMode : answer;
}

std::int32_t TestDriver::start() noexcept {
    if (const std::int32_t error = control_.enter("start")) return error;
    if (stage_ != Stage::prepared) return kAsioInvalidMode;
    control_.begin_run();
    half_ = 0;
    position_frames_ = 0;
    if (options_.on("callback_in_start")) run_period();
    running_ = true;
    stage_ = Stage::running;
    thread_ = std::thread([this] { run_periods(); });
    return kAsioOk;
}

std::int32_t TestDriver::stop() noexcept {
    const std::int32_t answer = control_.enter("stop");
    const bool was_running = stage_ == Stage::running;
    end_run();
    return answer == kAsioOk && !was_running ? kAsioInvalidMode : answer;
}

std::int32_t TestDriver::outputReady() noexcept {
    const std::int32_t answer = control_.enter("outputReady");
    return options_.on("output_ready") ? answer : kAsioNotPresent;
}

const Channel* TestDriver::find(bool is_input, std::int32_t number) const {
    const auto found = std::ranges::find_if(channels_, [&](const Channel& channel) {
        return channel.is_input == is_input && channel.number == number;
    });
    return found == channels_.end() ? nullptr : &*found;
}

bool TestDriver::accepts_size(std::int32_t frames) const {
    const std::int32_t minimum = options_.number("minimum_frames");
    const std::int32_t granularity = options_.number("granularity");
    if (frames < minimum || frames > options_.number("maximum_frames")) return false;
    if (frames == minimum) return true;
    if (granularity > 0) return (frames - minimum) % granularity == 0;
    return granularity == -1 && frames % minimum == 0 &&
           std::has_single_bit(static_cast<std::uint32_t>(frames / minimum));
}

void TestDriver::make_channels(std::span<AsioBufferInfo> wanted, std::int32_t frames) {
    const auto filling = static_cast<std::uint8_t>(options_.on("noise") ? noise_byte : 0);
    const auto count = static_cast<std::size_t>(frames);
    const std::size_t guard_bytes = count * sizeof(double);
    for (const AsioBufferInfo& info : wanted) {
        const bool is_input = info.isInput != 0;
        Channel& channel = channels_.emplace_back(
            Channel{is_input, info.channel, type_of(is_input, info.channel), 0, {}, nullptr});
        channel.half_bytes = bytes_of(channel.type, count);
        for (auto& half : channel.half) {
            half.assign(channel.half_bytes, filling);
            half.resize(channel.half_bytes + guard_bytes, guard_byte);
        }
    }
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        Channel& channel = channels_[i];
        if (channel.is_input && options_.on("loop"))
            channel.looped_from = find(false, channel.number - options_.number("loop_offset"));
        for (const std::size_t half : {0U, 1U})
            wanted[i].half[half] = channel.half[half].data();
        if (options_.on("scribbles")) wanted[i].channel = wanted[i].isInput = -1;
    }
}

void TestDriver::ask_host() {
    const bool wanted = callbacks_->asioMessage(kAsioSupportsTimeInfo, 0, nullptr, nullptr) != 0;
    for (const std::int32_t selector : {kAsioResetRequest, kAsioResyncRequest, kAsioOverload})
        callbacks_->asioMessage(kAsioSelectorSupported, selector, nullptr, nullptr);
    const std::int32_t time_info = options_.number("time_info");
    with_time_info_ = time_info == 2 ? wanted : time_info == 1;
}

/// Ends the periods even if the calling function is set to fail.
void TestDriver::end_run() {
    if (stage_ != Stage::running) return;
    running_ = false;
    thread_.join();
    if (options_.on("callback_in_stop")) on_other_thread([this] { run_period(); });
    stage_ = Stage::prepared;
}

void TestDriver::release_buffers() {
    end_run();
    for (const Channel& channel : channels_) {
        for (const auto& half : channel.half)
            control_.count_overwritten(
                std::ranges::count_if(std::span(half).subspan(channel.half_bytes),
                                      [](std::uint8_t byte) { return byte != guard_byte; }));
    }
    stage_ = std::min(stage_, Stage::initialised);
    channels_.clear();
    callbacks_ = nullptr;
    control_.set_host(nullptr);
}

void TestDriver::run_periods() {
    const platform::ScopedThreadRole role(platform::ThreadRole::audio_device);
    const platform::ScopedTimerResolution resolution;
    const double speed = 1.0 + options_.value("ppm") * 1e-6;
    auto due = Clock::now();
    while (running_) {
        const std::chrono::duration<double> period(frames_ / (rate_ * speed));
        due += std::chrono::duration_cast<Clock::duration>(period);
        std::this_thread::sleep_until(due);
        due = std::max(due, Clock::now() - catch_up_limit);
        serve_commands();
        if (!control_.silent()) run_period();
    }
}

void TestDriver::serve_commands() {
    const auto tell = [this](std::int32_t selector) {
        call_host([&] { callbacks_->asioMessage(selector, 0, nullptr, nullptr); });
    };
    const auto tell_rate = [this] {
        call_host([this] { callbacks_->sampleRateDidChange(rate_); });
    };
    if (control_.take("reset")) tell(kAsioResetRequest);
    if (control_.take("resync")) tell(kAsioResyncRequest);
    if (control_.take("overload")) tell(kAsioOverload);
    if (control_.take("repeat_rate")) tell_rate();
    if (control_.take("rate_changed")) {
        rate_ = control_.options().value("rate");
        tell_rate();
    }
    if (control_.take("bad_index")) {
        switch_buffers(-1);
        switch_buffers(2);
    }
}

void TestDriver::run_period() {
    feed_inputs();
    switch_buffers(static_cast<std::int32_t>(half_));
    half_ = 1 - half_;
    position_frames_ += frames_;
    control_.count_period();
}

/// Copies what the host wrote in the previous period into the half that it reads next.
void TestDriver::feed_inputs() {
    for (Channel& channel : channels_) {
        if (!channel.is_input) continue;
        const RawSamples target = channel.samples(half_);
        if (const Channel* source = channel.looped_from) {
            copy_samples(source->samples(1 - half_), source->type, target, channel.type);
        } else {
            fill_samples(target, channel.type,
                         options_.value("input_level") / (channel.number + 1));
        }
    }
}

void TestDriver::switch_buffers(std::int32_t index) {
    call_host([&] {
        if (!with_time_info_) return callbacks_->bufferSwitch(index, 1);
        AsioTimeRecord time{};
        time.speed = 1.0;
        time.systemTime = count64(system_ns());
        time.samplePosition = count64(position_frames_);
        time.sampleRate = rate_;
        time.flags = kAsioSystemTimeValid | kAsioSamplePositionValid | kAsioSampleRateValid |
                     kAsioSpeedValid;
        callbacks_->bufferSwitchTimeInfo(&time, index, 1);
    });
}

}  // namespace

AsioDriver* create_test_driver() noexcept {
    if (DriverControl::instance().enter("create") != kAsioOk) return nullptr;
    return new (std::nothrow) TestDriver;
}

}  // namespace tavistro::test
