#include "drivers/base/driver_base.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

namespace tavistro::drivers {
namespace {

constexpr std::int32_t float32_little_endian = 19;
constexpr std::int32_t no_interface = static_cast<std::int32_t>(0x80004002);
constexpr std::size_t driver_name_bytes = 32;

AsioCount64 count64(std::uint64_t value) {
    return {static_cast<std::uint32_t>(value >> 32), static_cast<std::uint32_t>(value)};
}

}  // namespace

std::int32_t DriverBase::QueryInterface(const void* interface_id, void** object) noexcept {
    const bool known = std::memcmp(interface_id, class_id_.data(), class_id_.size()) == 0;
    *object = known ? static_cast<AsioDriver*>(this) : nullptr;
    if (known) AddRef();
    return known ? kAsioOk : no_interface;
}

std::uint32_t DriverBase::Release() noexcept {
    const std::uint32_t left = --references_;
    if (left == 0) delete this;
    return left;
}

std::int32_t DriverBase::init(void*) noexcept try {
    if (stage_ != Stage::created) return 0;
    stage_ = Stage::initialised;
    const std::string refusal = open_device();
    set_error(refusal);
    return refusal.empty() ? 1 : 0;
} catch (const std::exception&) {
    set_error("Not enough memory.");
    return 0;
}

void DriverBase::getDriverName(char* name) noexcept {
    std::snprintf(name, driver_name_bytes, "%s", name_.c_str());
}

void DriverBase::getErrorMessage(char* text) noexcept {
    if (error_[0] == '\0') {
        std::snprintf(text, error_.size(), "%u missed deadlines.", missed_deadlines_.load());
    } else {
        std::memcpy(text, error_.data(), error_.size());
    }
}

void DriverBase::set_error(const std::string& text) noexcept {
    std::snprintf(error_.data(), error_.size(), "%s", text.c_str());
}

std::int32_t DriverBase::getChannels(std::int32_t* inputs, std::int32_t* outputs) noexcept {
    *inputs = is_open() ? channel_count(true) : 0;
    *outputs = is_open() ? channel_count(false) : 0;
    return is_open() ? kAsioOk : kAsioNotPresent;
}

std::int32_t DriverBase::getLatencies(std::int32_t* inputs, std::int32_t* outputs) noexcept {
    if (stage_ < Stage::prepared) return kAsioInvalidMode;
    *inputs = latency(true);
    *outputs = latency(false);
    return kAsioOk;
}

std::int32_t DriverBase::getBufferSize(std::int32_t* minimum, std::int32_t* maximum,
                                       std::int32_t* preferred,
                                       std::int32_t* granularity) noexcept {
    const BufferSizes sizes = is_open() ? buffer_sizes() : BufferSizes{};
    *minimum = sizes.minimum;
    *maximum = sizes.maximum;
    *preferred = sizes.preferred;
    *granularity = sizes.granularity;
    return is_open() ? kAsioOk : kAsioNotPresent;
}

std::int32_t DriverBase::setSampleRate(double rate) noexcept try {
    if (const std::int32_t refused = canSampleRate(rate)) {
        const std::string refusal = is_open() ? rate_refusal(rate) : std::string();
        rate_refused_ = !refusal.empty();
        if (rate_refused_) set_error(refusal);
        return refused;
    }
    if (std::exchange(rate_refused_, false)) set_error({});
    if (rate == sample_rate()) return kAsioOk;
    if (stage_ >= Stage::prepared) return kAsioInvalidMode;
    return set_rate(rate) ? kAsioOk : kAsioNoClock;
} catch (const std::bad_alloc&) {
    return kAsioNoClock;
}

std::int32_t DriverBase::getClockSources(AsioClockSource* sources, std::int32_t* count) noexcept {
    if (*count < 1) return kAsioInvalidParameter;
    *count = 1;
    *sources = {.index = 0, .channel = -1, .group = -1, .isCurrent = 1, .name = {}};
    std::snprintf(sources->name, sizeof(sources->name), "%s", name_.c_str());
    return kAsioOk;
}

std::int32_t DriverBase::getChannelInfo(AsioChannelInfo* info) noexcept {
    const bool is_input = info->isInput != 0;
    if (!is_open()) return kAsioNotPresent;
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

std::int32_t DriverBase::createBuffers(AsioBufferInfo* channels, std::int32_t channel_count,
                                       std::int32_t frames, AsioCallbacks* callbacks) noexcept {
    if (stage_ != Stage::initialised || !is_open()) return kAsioInvalidMode;
    if (rate_refused_) return kAsioNoClock;
    if (frames < 1 || !accepts_size(frames)) {
        refuse_size(frames);
        return kAsioInvalidMode;
    }
    if (channel_count < 1) return kAsioInvalidParameter;
    const std::span wanted(channels, static_cast<std::size_t>(channel_count));
    for (const AsioBufferInfo& info : wanted) {
        if (!exists(info.isInput != 0, info.channel)) return kAsioInvalidParameter;
    }
    block_frames_ = static_cast<std::size_t>(frames);
    callbacks_ = callbacks;
    stage_ = Stage::prepared;
    set_error({});
    if (const std::int32_t fault = make_channels(wanted)) {
        disposeBuffers();
        return fault;
    }
    const auto ask = [&](std::int32_t selector, std::int32_t value) {
        return callbacks->asioMessage(selector, value, nullptr, nullptr) != 0;
    };
    with_time_info_ = ask(kAsioSupportsTimeInfo, 0);
    overload_wanted_ = ask(kAsioSelectorSupported, kAsioOverload);
    const std::lock_guard lock(notice_mutex_);
    notified_ = callbacks;
    return kAsioOk;
}

void DriverBase::refuse_size(std::int32_t frames) noexcept {
    const BufferSizes sizes = buffer_sizes();
    std::array<char, 48> offered{};
    if (sizes.minimum == sizes.maximum)
        std::snprintf(offered.data(), offered.size(), "%d frames", sizes.minimum);
    else if (sizes.granularity > 1)
        std::snprintf(offered.data(), offered.size(), "%d to %d frames in steps of %d",
                      sizes.minimum, sizes.maximum, sizes.granularity);
    else
        std::snprintf(offered.data(), offered.size(), "%d to %d frames%s", sizes.minimum,
                      sizes.maximum, sizes.granularity < 0 ? " by doubling" : "");
    std::snprintf(error_.data(), error_.size(), "%s has no blocks of %d frames: it has %s.",
                  name_.c_str(), frames, offered.data());
}

std::int32_t DriverBase::make_channels(std::span<AsioBufferInfo> wanted) try {
    channels_.resize(wanted.size());
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        Channel& channel = channels_[i];
        channel.is_input = wanted[i].isInput != 0;
        channel.number = static_cast<std::size_t>(wanted[i].channel);
        for (const std::size_t half : {0U, 1U}) {
            channel.half[half].assign(block_frames_, 0.0F);
            wanted[i].half[half] = channel.half[half].data();
        }
    }
    return prepare();
} catch (const std::bad_alloc&) {
    return kAsioNoMemory;
}

std::int32_t DriverBase::disposeBuffers() noexcept {
    if (stage_ < Stage::prepared) return kAsioInvalidMode;
    stop();
    {
        const std::lock_guard lock(notice_mutex_);
        notified_ = nullptr;
    }
    unprepare();
    channels_.clear();
    stage_ = Stage::initialised;
    return kAsioOk;
}

std::int32_t DriverBase::start() noexcept {
    if (stage_ != Stage::prepared) return kAsioInvalidMode;
    half_ = 0;
    position_ = no_position;
    if (const std::int32_t fault = start_periods()) return fault;
    stage_ = Stage::running;
    return kAsioOk;
}

std::int32_t DriverBase::stop() noexcept {
    if (stage_ != Stage::running) return kAsioInvalidMode;
    stop_periods();
    stage_ = Stage::prepared;
    return kAsioOk;
}

/// Any thread may call this: hosts only take note of the message and handle it on their own thread.
void DriverBase::tell(std::int32_t selector) {
    const std::lock_guard lock(notice_mutex_);
    if (notified_ == nullptr || (selector == kAsioOverload && !overload_wanted_)) return;
    notified_->asioMessage(selector, 0, nullptr, nullptr);
}

void DriverBase::request_reset_in_period() {
    callbacks_->asioMessage(kAsioResetRequest, 0, nullptr, nullptr);
}

void DriverBase::count_missed_deadline_in_period() {
    ++missed_deadlines_;
    if (overload_wanted_) callbacks_->asioMessage(kAsioOverload, 0, nullptr, nullptr);
}

void DriverBase::switch_buffers(std::uint64_t position, std::uint64_t nanoseconds) {
    position_ = changing_position;
    position_ns_ = nanoseconds;
    position_ = static_cast<std::int64_t>(position);
    const auto half = static_cast<std::int32_t>(half_);
    if (with_time_info_) {
        AsioTimeRecord time = time_info(position, nanoseconds);
        callbacks_->bufferSwitchTimeInfo(&time, half, 1);
    } else {
        callbacks_->bufferSwitch(half, 1);
    }
    half_ = 1 - half_;
}

AsioTimeRecord DriverBase::time_info(std::uint64_t position, std::uint64_t nanoseconds) const {
    AsioTimeRecord time{};
    time.speed = 1.0;
    time.systemTime = count64(nanoseconds);
    time.samplePosition = count64(position);
    time.sampleRate = sample_rate();
    time.flags =
        kAsioSystemTimeValid | kAsioSamplePositionValid | kAsioSampleRateValid | kAsioSpeedValid;
    return time;
}

std::int32_t DriverBase::getSamplePosition(AsioCount64* samples,
                                           AsioCount64* nanoseconds) noexcept {
    if (stage_ != Stage::running) return kAsioNotAdvancing;
    for (;;) {
        const std::int64_t position = position_;
        const std::uint64_t time = position_ns_;
        if (position == no_position) return kAsioNotAdvancing;
        if (position != position_ || position == changing_position) continue;
        *samples = count64(static_cast<std::uint64_t>(position));
        *nanoseconds = count64(time);
        return kAsioOk;
    }
}

}  // namespace tavistro::drivers
