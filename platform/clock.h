// The engine's two clocks, its counter and its sleep.
//
// All code that measures time or waits uses this header, so that a test can link a clock that it
// advances itself.
#pragma once

#include <cstdint>

namespace tavistro::platform {

/// Monotonic high-resolution counter in ticks of 1 / performance_frequency() seconds.
/// Any thread; real-time safe.
std::int64_t performance_counter() noexcept;

/// Ticks per second of performance_counter(), constant while the process runs: usually 10 MHz on
/// Windows, 1 GHz on Linux. Any thread; real-time safe.
std::int64_t performance_frequency() noexcept;

/// Milliseconds since system start, monotonic: every timeout, period and event stamp of the
/// engine. Any thread; real-time safe.
std::uint64_t millisecond_tick() noexcept;

/// Sleeps for at least `ms` milliseconds; 0 yields the rest of the time slice. Resumes after
/// interruptions by signals. Any thread except a driver's.
void sleep_ms(std::uint32_t ms) noexcept;

/// Nanoseconds of a counter value: counter * 10^9 / frequency in double precision, 0 for a
/// frequency below 1.
constexpr std::uint64_t counter_to_nanoseconds(std::int64_t counter,
                                               std::int64_t frequency) noexcept {
    if (frequency < 1) return 0;
    return static_cast<std::uint64_t>(static_cast<double>(counter) * 1e9 /
                                      static_cast<double>(frequency));
}

/// The nanosecond clock of every time stamp in the engine. Any thread; real-time safe.
inline std::uint64_t nanosecond_clock() noexcept {
    return counter_to_nanoseconds(performance_counter(), performance_frequency());
}

}  // namespace tavistro::platform
