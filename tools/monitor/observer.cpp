#include "tools/monitor/observer.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "platform/threads.h"
#include "tools/readings/stats_reader.h"

namespace tavistro::monitor {

namespace {

using namespace std::chrono;

std::int64_t now_us() {
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

Observer::Observer(const std::vector<std::uint32_t>& client_ids)
    : finds_engines_(client_ids.empty()) {
    for (const std::uint32_t id : client_ids)
        watches_.try_emplace(id, id);
    if (finds_engines_) find_engines();
    thread_ = std::jthread([this](const std::stop_token& stop) { observe(stop); });
}

std::vector<Sample> Observer::look() {
    const std::lock_guard lock(mutex_);
    const std::int64_t time_ms =
        duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
    const std::uint32_t late_us = std::exchange(longest_late_us_, 0);
    std::vector<Sample> samples;
    for (auto& [id, watch] : watches_) {
        Sample sample = watch.look(now_us());
        if (finds_engines_ && sample.presence == Presence::absent) continue;
        sample.time_ms = time_ms;
        sample.host_late_us = late_us;
        samples.push_back(sample);
    }
    return samples;
}

void Observer::find_engines() {
    for (const std::uint32_t id : readings::possible_client_ids())
        watches_.try_emplace(id, id);
}

void Observer::observe(const std::stop_token& stop) {
    constexpr std::int64_t longest_told_us = 3'600'000'000;
    // Also without an engine: the pauses of this computer are measured all the time.
    constexpr std::int64_t least_us = 200;
    constexpr std::int64_t most_us = 4000;
    const platform::ScopedTimerResolution resolution;
    constexpr std::int64_t find_every_us = 250'000;
    std::int64_t due_us = now_us();
    std::int64_t next_find_us = due_us + find_every_us;
    while (!stop.stop_requested()) {
        std::this_thread::sleep_until(steady_clock::time_point(microseconds(due_us)));
        const std::int64_t woke_us = now_us();
        const std::int64_t late_us = std::clamp<std::int64_t>(woke_us - due_us, 0, longest_told_us);
        const std::lock_guard lock(mutex_);
        longest_late_us_ = std::max(longest_late_us_, static_cast<std::uint32_t>(late_us));
        due_us = woke_us + most_us;
        if (finds_engines_ && woke_us >= next_find_us) {
            find_engines();
            next_find_us = woke_us + find_every_us;
        }
        for (auto& [id, watch] : watches_) {
            watch.glance(now_us(), late_us);
            due_us = std::min(due_us, watch.next_glance_us());
        }
        due_us = std::max(due_us, now_us() + least_us);
    }
}

}  // namespace tavistro::monitor
