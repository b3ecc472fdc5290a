#include "audio/loopback_schedule.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "audio/scaled_ticks.h"

namespace tavistro {

namespace {

constexpr std::uint32_t random_seed = 0x5456424B;

std::uint32_t next_random(std::uint32_t state) noexcept {
    return state * 1664525U + 1013904223U;
}

double nominal_period_ticks(const AudioDeviceSettings& settings, std::int64_t frequency) noexcept {
    if (settings.sample_rate == 0) return 1.0;
    const double ticks = static_cast<double>(settings.block_size) * static_cast<double>(frequency) /
                         static_cast<double>(settings.sample_rate);
    return ticks > 0.0 ? ticks : 1.0;
}

double drifted(double period, std::int32_t drift_ppm) noexcept {
    return period / std::max(0.01, static_cast<double>(drift_ppm) / 1'000'000.0 + 1.0);
}

/// True in the first `duration` of every `every` milliseconds; never if either is 0.
bool repeating_interval_open(std::int64_t elapsed_ms, std::uint32_t every,
                             std::uint32_t duration) noexcept {
    return elapsed_ms >= 0 && every != 0 && elapsed_ms % every < duration;
}

}  // namespace

LoopbackSchedule::LoopbackSchedule(AudioDeviceSettings settings, std::int64_t frequency,
                                   std::int64_t start)
    : settings_(std::move(settings)),
      frequency_(frequency),
      start_(start),
      period_(drifted(nominal_period_ticks(settings_, frequency), settings_.loopback_drift_ppm)),
      deadline_(static_cast<double>(start) + period_),
      random_state_(random_seed) {}

std::int64_t LoopbackSchedule::deadline_tick() const noexcept {
    return static_cast<std::int64_t>(deadline_ + 0.5);
}

std::int64_t LoopbackSchedule::next_wake() noexcept {
    return deadline_tick() + jitter_ticks();
}

std::int64_t LoopbackSchedule::jitter_ticks() noexcept {
    const std::uint32_t most_ms = settings_.loopback_callback_jitter_max_ms;
    if (most_ms == 0) return 0;
    random_state_ = next_random(random_state_);
    const std::int64_t jitter_ms =
        std::int64_t{random_state_ % (2 * most_ms + 1)} - std::int64_t{most_ms};
    const double distance =
        static_cast<double>(std::abs(jitter_ms)) * static_cast<double>(frequency_) / 1000.0;
    const auto ticks = static_cast<std::int64_t>(distance + 0.5);
    return jitter_ms < 0 ? -ticks : ticks;
}

bool LoopbackSchedule::is_every(std::uint32_t every, std::uint32_t count) const noexcept {
    return every != 0 && count != 0 && period_index_ % every == 0;
}

bool LoopbackSchedule::begin_period() noexcept {
    period_index_ += 1;
    const std::uint32_t skips = settings_.loopback_callback_skip_count;
    if (is_every(settings_.loopback_callback_skip_every, skips)) skips_to_come_ = skips;
    if (skips_to_come_ == 0) return true;
    skips_to_come_ -= 1;
    return false;
}

std::uint32_t LoopbackSchedule::duplicates() const noexcept {
    const std::uint32_t count = settings_.loopback_callback_duplicate_count;
    return is_every(settings_.loopback_callback_duplicate_every, count) ? count : 0;
}

std::int64_t LoopbackSchedule::elapsed_ms(std::int64_t now) const noexcept {
    const std::int64_t ticks = now - start_;
    if (ticks < 0 || frequency_ < 1) return -1;
    return scaled_ticks(ticks, 1000, frequency_);
}

std::uint32_t LoopbackSchedule::stall_ms(std::int64_t now) const noexcept {
    const std::uint32_t duration = settings_.loopback_callback_stall_duration_ms;
    const bool open = repeating_interval_open(elapsed_ms(now),
                                              settings_.loopback_callback_stall_every_ms, duration);
    const bool lasts_a_tick = frequency_ >= 1 && duration * frequency_ / 1000 >= 1;
    return open && lasts_a_tick ? duration : 0;
}

bool LoopbackSchedule::input_silent(std::int64_t now) const noexcept {
    return repeating_interval_open(elapsed_ms(now), settings_.loopback_input_silence_every_ms,
                                   settings_.loopback_input_silence_duration_ms);
}

bool LoopbackSchedule::device_lost(std::int64_t now) const noexcept {
    const std::int64_t elapsed = elapsed_ms(now);
    const std::int64_t after = settings_.loopback_device_lost_after_ms;
    return elapsed >= after &&
           elapsed < after + std::int64_t{settings_.loopback_device_lost_duration_ms};
}

void LoopbackSchedule::advance(std::int64_t now) noexcept {
    deadline_ += period_;
    if (now <= deadline_tick()) return;
    const double behind = static_cast<double>(now) - deadline_;
    if (behind < period_) return;
    deadline_ += std::max(1.0, std::floor(behind / period_) + 1.0) * period_;
    while (now > deadline_tick())
        deadline_ += period_;
}

}  // namespace tavistro
