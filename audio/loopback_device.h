// The virtual device that stands in for audio hardware: a thread that keeps the periods.
//
// Every period it renders one block and feeds it straight back as captured input. The faults that
// the settings ask for are decided by loopback_schedule.h.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "audio/loopback_schedule.h"
#include "audio/period_path.h"
#include "config/settings.h"
#include "platform/threads.h"

namespace tavistro {

/// start() and stop() belong to one controlling thread.
class LoopbackDevice {
  public:
    /// `telemetry_step` runs on the loopback thread after every period. Both outlive the device.
    LoopbackDevice(PeriodPath& periods, std::function<void()> telemetry_step);
    LoopbackDevice(const LoopbackDevice&) = delete;
    LoopbackDevice& operator=(const LoopbackDevice&) = delete;

    /// Starts the periods on a path that has been prepared for these settings. False when the
    /// system has no thread to give. Precondition: stopped.
    bool start(AudioDeviceSettings settings);
    /// Ends the periods and waits for the thread, at most about 50 ms plus one period's work.
    /// Idempotent. Raises std::system_error (resource_deadlock_would_occur) on the loopback thread
    /// itself, whose loop ends then without being waited for.
    void stop();

    /// True while the device is to be reported as lost. Any thread.
    bool device_lost() const noexcept { return device_lost_.load(std::memory_order_relaxed); }

  private:
    void run(LoopbackSchedule schedule);
    /// Returns the counter at the period's end.
    std::int64_t run_period(const LoopbackSchedule& schedule);
    void repeat_period(bool input_silent);
    /// False when the device is being stopped.
    bool wait_until(std::int64_t counter) const noexcept;
    bool stall(std::uint32_t ms) const noexcept;
    bool running() const noexcept { return running_.load(std::memory_order_relaxed); }

    PeriodPath& periods_;
    std::function<void()> telemetry_step_;
    std::int64_t frequency_ = 0;  ///< performance counter ticks per second
    std::atomic<bool> running_{false};
    std::atomic<bool> device_lost_{false};
    platform::Thread thread_;
};

}  // namespace tavistro
