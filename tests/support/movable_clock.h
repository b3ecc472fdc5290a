// The clock that tests link in place of the system's.
#pragma once

#include <cstdint>

namespace tavistro::test {

/// Time stands still until a test advances it; sleep_ms returns at once, having advanced the clock
/// by its argument. For code that runs on the test's own thread.
void set_manual_clock(std::uint64_t start_ms = 1'000'000);

/// Time follows the system plus whatever was advanced, and sleeps are real. The mode at start.
void use_running_clock();

void advance_clock_ms(std::uint64_t ms);
void advance_clock_ns(std::uint64_t ns);

}  // namespace tavistro::test
