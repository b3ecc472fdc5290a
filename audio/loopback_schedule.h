// Schedules the virtual device's periods and their injected faults.
//
// Deterministic: every decision depends only on the settings and the performance counter values
// passed in. loopback_device.h provides the thread. Not thread-safe.
#pragma once

#include <cstdint>

#include "config/settings.h"

namespace tavistro {

class LoopbackSchedule {
  public:
    /// `frequency` is in counter ticks per second. The first deadline is one period after `start`.
    LoopbackSchedule(AudioDeviceSettings settings, std::int64_t frequency, std::int64_t start);

    /// Length of a period in ticks, including the drift.
    double period_ticks() const noexcept { return period_; }

    /// Counter value at which the next period starts: the deadline plus random jitter. Call once
    /// per wait: each call draws a random number.
    std::int64_t next_wake() noexcept;
    /// Counts a period. Returns false if it must be skipped.
    bool begin_period() noexcept;
    /// Milliseconds to sleep before the current period; 0 outside a stall.
    std::uint32_t stall_ms(std::int64_t now) const noexcept;
    /// True while the captured input must be silent.
    bool input_silent(std::int64_t now) const noexcept;
    /// True while the device must be reported as lost.
    bool device_lost(std::int64_t now) const noexcept;
    /// Number of immediate repetitions of the current period.
    std::uint32_t duplicates() const noexcept;
    /// Advances the deadline. Drops all periods missed by `now`, but keeps a deadline that is late
    /// by less than a period.
    void advance(std::int64_t now) noexcept;

  private:
    std::int64_t deadline_tick() const noexcept;
    std::int64_t jitter_ticks() noexcept;
    bool is_every(std::uint32_t every, std::uint32_t count) const noexcept;
    std::int64_t elapsed_ms(std::int64_t now) const noexcept;

    AudioDeviceSettings settings_;
    std::int64_t frequency_;
    std::int64_t start_;
    double period_;    ///< ticks
    double deadline_;  ///< ticks
    std::uint32_t random_state_;
    std::uint64_t period_index_ = 0;  ///< includes skipped periods
    std::uint32_t skips_to_come_ = 0;
};

}  // namespace tavistro
