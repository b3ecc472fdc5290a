// The clock that tests link in place of the system's.
#pragma once

#include <cstdint>

namespace tavistro::test {

/// Time stands still until a test advances it; sleep_ms returns at once, having advanced the clock
/// by its argument. For code that runs on the test's own thread.
void set_manual_clock(std::uint64_t start_ms = 1'000'000);

/// Time follows the system plus whatever was advanced, and sleeps are real. The mode at start.
void use_running_clock();

/// Called at every reading in milliseconds, on the thread that reads; null for none. Tests look
/// there at what is so just before a moment that the code takes the time of.
void call_at_readings(void (*hook)());

/// No sleep of a running clock takes longer in real time.
void limit_sleeps_ms(std::uint32_t longest);

void advance_clock_ms(std::uint64_t ms);
void advance_clock_ns(std::uint64_t ns);

}  // namespace tavistro::test
