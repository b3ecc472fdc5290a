#include "platform/clock.h"

#include <cerrno>
#include <ctime>

namespace tavistro::platform {
namespace {

constexpr std::int64_t ns_per_second = 1'000'000'000;
// What sleep_ms(0) gives up. sched_yield returns at once while nobody else wants the core, so a
// loop that yields would burn it; a sleep this short, with what the kernel adds, stays within the
// 0.2 ms that the callers spin at the end of a wait.
constexpr long yield_ns = 100'000;

timespec monotonic_now() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

}  // namespace

std::int64_t performance_counter() noexcept {
    const timespec now = monotonic_now();
    return now.tv_sec * ns_per_second + now.tv_nsec;
}

std::int64_t performance_frequency() noexcept {
    return ns_per_second;
}

std::uint64_t millisecond_tick() noexcept {
    return static_cast<std::uint64_t>(performance_counter() / 1'000'000);
}

void sleep_ms(std::uint32_t ms) noexcept {
    timespec until = monotonic_now();
    until.tv_sec += static_cast<std::time_t>(ms / 1000);
    until.tv_nsec += ms == 0 ? yield_ns : static_cast<long>(ms % 1000) * 1'000'000;
    if (until.tv_nsec >= ns_per_second) {
        until.tv_nsec -= ns_per_second;
        ++until.tv_sec;
    }
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

}  // namespace tavistro::platform
