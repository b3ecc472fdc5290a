// Replaces the system clock in tests.
#pragma once

#include <cstdint>

namespace tavistro::test {

/// Stops the clock; only tests and sleep_ms advance it. sleep_ms returns at once. For code on the
/// test's own thread.
void set_manual_clock(std::uint64_t start_ms = 1'000'000);

/// The clock follows the system plus all advances, and sleeps are real. The initial mode.
void use_running_clock();

/// Sets a hook for every reading of millisecond_tick(), called on the reading thread; null removes
/// it.
void call_at_readings(void (*hook)());

/// Limits each sleep of the running clock to this real time.
void limit_sleeps_ms(std::uint32_t longest);

void advance_clock_ms(std::uint64_t ms);
void advance_clock_ns(std::uint64_t ns);

}  // namespace tavistro::test
