// When the virtual device's periods happen and which faults they suffer.
//
// Arithmetic alone: every decision follows from the settings and the performance counter values
// handed in, so that two runs on the same values decide the same. The thread around it is
// loopback_device.h. One thread.
#pragma once

#include <cstdint>

#include "config/settings.h"

namespace tavistro {

class LoopbackSchedule {
  public:
    /// `frequency` in counter ticks per second; the first deadline lies one period after `start`.
    LoopbackSchedule(AudioDeviceSettings settings, std::int64_t frequency, std::int64_t start);

    /// Length of a period in ticks, the drift included.
    double period_ticks() const noexcept { return period_; }

    /// Counter value to wait for before the next period: the deadline, moved by a fresh jitter.
    /// Draws a random number, so called once per wait.
    std::int64_t next_wake() noexcept;
    /// Counts a period. False when it is to be skipped altogether.
    bool begin_period() noexcept;
    /// How long to sleep before the current period, in milliseconds; 0 outside a stall.
    std::uint32_t stall_ms(std::int64_t now) const noexcept;
    /// True while the input is to be captured as silence.
    bool input_silent(std::int64_t now) const noexcept;
    /// True while the device is to be reported as lost.
    bool device_lost(std::int64_t now) const noexcept;
    /// How often the current period is repeated at once.
    std::uint32_t duplicates() const noexcept;
    /// Moves the deadline on. Periods missed by `now` are dropped, not made up, except for the last
    /// one when less than a period is missing.
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
    std::uint64_t period_index_ = 0;  ///< counts skipped periods too
    std::uint32_t skips_to_come_ = 0;
};

}  // namespace tavistro
