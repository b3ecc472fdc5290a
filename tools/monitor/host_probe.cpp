#include "tools/monitor/host_probe.h"

#include <algorithm>
#include <chrono>

namespace tavistro::monitor {

namespace {

using namespace std::chrono_literals;

/// Short enough to meet the pauses that an engine would feel, at under a per cent of a core.
constexpr auto nap = 4ms;
constexpr std::int64_t longest_told_us = 3'600'000'000;

}  // namespace

HostProbe::HostProbe() : thread_([this](const std::stop_token& stop) { measure(stop); }) {}

void HostProbe::measure(const std::stop_token& stop) {
    using Clock = std::chrono::steady_clock;
    while (!stop.stop_requested()) {
        const auto due = Clock::now() + nap;
        std::this_thread::sleep_until(due);
        const auto late = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - due);
        const auto late_us =
            static_cast<std::uint32_t>(std::clamp<std::int64_t>(late.count(), 0, longest_told_us));
        // Only this thread stores anything but 0: at worst a value that was just taken is kept.
        longest_us_ = std::max(longest_us_.load(), late_us);
    }
}

}  // namespace tavistro::monitor
