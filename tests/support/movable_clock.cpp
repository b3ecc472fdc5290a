#include "support/movable_clock.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "platform/clock.h"

namespace {

std::atomic<bool> manual{false};
std::atomic<std::int64_t> moved_ns{0};
std::atomic<void (*)()> at_reading{nullptr};
std::atomic<std::uint32_t> longest_sleep_ms{UINT32_MAX};

std::int64_t system_ns() {
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

namespace tavistro::test {

void set_manual_clock(std::uint64_t start_ms) {
    moved_ns = static_cast<std::int64_t>(start_ms) * 1'000'000;
    manual = true;
}

void use_running_clock() {
    manual = false;
    moved_ns = 0;
}

void call_at_readings(void (*hook)()) {
    at_reading = hook;
}
void limit_sleeps_ms(std::uint32_t longest) {
    longest_sleep_ms = longest;
}

void advance_clock_ns(std::uint64_t ns) {
    moved_ns += static_cast<std::int64_t>(ns);
}
void advance_clock_ms(std::uint64_t ms) {
    advance_clock_ns(ms * 1'000'000);
}

}  // namespace tavistro::test

namespace tavistro::platform {

std::int64_t performance_counter() noexcept {
    return moved_ns + (manual ? 0 : system_ns());
}
std::int64_t performance_frequency() noexcept {
    return 1'000'000'000;
}

std::uint64_t millisecond_tick() noexcept {
    if (const auto hook = at_reading.load()) hook();
    return static_cast<std::uint64_t>(performance_counter() / 1'000'000);
}

void sleep_ms(std::uint32_t ms) noexcept {
    if (manual) {
        test::advance_clock_ms(ms);
    } else if (ms == 0) {
        // A loop that only yields would take a core from the other threads of the test.
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    } else {
        std::this_thread::sleep_for(
            std::chrono::milliseconds(std::min(ms, longest_sleep_ms.load())));
    }
}

}  // namespace tavistro::platform
