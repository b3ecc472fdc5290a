// The virtual audio device: a thread with timed periods in place of audio hardware.
//
// In every period it renders one block and returns it as captured input. loopback_schedule.h
// decides on the faults that the settings inject.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "audio/loopback_schedule.h"
#include "audio/period_path.h"
#include "config/settings.h"
#include "platform/threads.h"

namespace tavistro {

/// One controlling thread calls start() and stop().
class LoopbackDevice {
  public:
    /// `telemetry_step` runs on the loopback thread after every period. `periods` must outlive the
    /// device.
    LoopbackDevice(PeriodPath& periods, std::function<void()> telemetry_step);
    LoopbackDevice(const LoopbackDevice&) = delete;
    LoopbackDevice& operator=(const LoopbackDevice&) = delete;

    /// Starts the periods on a path that has been prepared for these settings. Returns false if the
    /// thread cannot be created. Precondition: stopped.
    bool start(AudioDeviceSettings settings);
    /// Stops the periods and waits for the thread, at most about 50 ms plus the work of one period.
    /// Idempotent. Throws std::system_error (resource_deadlock_would_occur) on the loopback thread;
    /// its loop then ends, but nothing waits for it.
    void stop();

    /// True while the schedule injects a device loss. Any thread.
    bool device_lost() const noexcept { return device_lost_.load(std::memory_order_relaxed); }

  private:
    void run(LoopbackSchedule schedule);
    /// Returns the performance counter at the end of the period.
    std::int64_t run_period(const LoopbackSchedule& schedule);
    void repeat_period(bool input_silent);
    /// Returns false if the device is being stopped.
    bool wait_until(std::int64_t counter) const noexcept;
    bool stall(std::uint32_t ms) const noexcept;
    bool running() const noexcept { return running_.load(std::memory_order_relaxed); }

    PeriodPath& periods_;
    std::function<void()> telemetry_step_;
    std::int64_t frequency_ = 0;  ///< performance counter ticks per second
    // Both relaxed: they pass on no data. Creating and joining the thread does.
    std::atomic<bool> running_{false};
    std::atomic<bool> device_lost_{false};
    platform::Thread thread_;
};

}  // namespace tavistro
