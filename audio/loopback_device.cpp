#include "audio/loopback_device.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "platform/clock.h"

namespace tavistro {

namespace {

// Upper limit of one sleep, so that a stop does not wait for a long period or stall.
constexpr std::uint32_t longest_sleep_ms = 50;
// A sleep may end late by this much, so the wait ends with yields and then with spinning.
constexpr double yield_within_ms = 2.0;
constexpr double spin_within_ms = 0.2;

// The device that the calling thread runs, if any. The thread object is no substitute: start() may
// not have stored it yet.
thread_local const LoopbackDevice* running_here = nullptr;

}  // namespace

LoopbackDevice::LoopbackDevice(PeriodPath& periods, std::function<void()> telemetry_step)
    : periods_(periods), telemetry_step_(std::move(telemetry_step)) {}

bool LoopbackDevice::start(AudioDeviceSettings settings) {
    frequency_ = platform::performance_frequency();
    // The thread body owns the settings: memory can only run out here, not on the thread.
    std::function<void()> body = [this, settings = std::move(settings)]() mutable {
        running_here = this;
        const platform::ScopedTimerResolution timer_resolution;
        const platform::ScopedThreadRole role(platform::ThreadRole::audio_device);
        run({std::move(settings), frequency_, platform::performance_counter()});
    };
    running_.store(true, std::memory_order_relaxed);
    if (thread_.start("tav-loopback", std::move(body))) return true;
    running_.store(false, std::memory_order_relaxed);
    return false;
}

void LoopbackDevice::stop() {
    running_.store(false, std::memory_order_relaxed);
    device_lost_.store(false, std::memory_order_relaxed);
    if (running_here == this)
        throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur));
    thread_.join();
}

void LoopbackDevice::run(LoopbackSchedule schedule) {
    while (wait_until(schedule.next_wake())) {
        if (!schedule.begin_period()) {
            schedule.advance(platform::performance_counter());
            continue;
        }
        if (!stall(schedule.stall_ms(platform::performance_counter()))) break;
        schedule.advance(run_period(schedule));
    }
    device_lost_.store(false, std::memory_order_relaxed);
}

std::int64_t LoopbackDevice::run_period(const LoopbackSchedule& schedule) {
    const std::int64_t start = platform::performance_counter();
    periods_.count_period();
    periods_.follow_drift();
    periods_.render(start);
    periods_.meter_outputs();

    const std::int64_t rendered_at = platform::performance_counter();
    device_lost_.store(schedule.device_lost(rendered_at), std::memory_order_relaxed);
    const bool input_silent = schedule.input_silent(rendered_at);
    periods_.loop_back(input_silent);
    telemetry_step_();
    periods_.count_frames();

    for (std::uint32_t i = 0; i < schedule.duplicates() && running(); ++i)
        repeat_period(input_silent);
    const std::int64_t end = platform::performance_counter();
    periods_.record_duration(start, end);
    return end;
}

void LoopbackDevice::repeat_period(bool input_silent) {
    const std::int64_t start = platform::performance_counter();
    periods_.count_period();
    periods_.loop_back(input_silent);
    telemetry_step_();
    periods_.count_frames();
    periods_.record_duration(start, platform::performance_counter());
}

bool LoopbackDevice::wait_until(std::int64_t counter) const noexcept {
    while (running()) {
        const std::int64_t remaining = counter - platform::performance_counter();
        if (remaining < 1) return true;
        const double ms = static_cast<double>(remaining) * 1000.0 / static_cast<double>(frequency_);
        if (ms > yield_within_ms)
            platform::sleep_ms(static_cast<std::uint32_t>(
                std::min<double>(ms - yield_within_ms, longest_sleep_ms)));
        else if (ms > spin_within_ms)
            platform::sleep_ms(0);
    }
    return false;
}

bool LoopbackDevice::stall(std::uint32_t ms) const noexcept {
    while (ms > 0 && running()) {
        const std::uint32_t slice = std::min(ms, longest_sleep_ms);
        platform::sleep_ms(slice);
        ms -= slice;
    }
    return running();
}

}  // namespace tavistro
