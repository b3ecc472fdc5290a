#include "audio/playback_statistics.h"

#include "audio/atomic_maximum.h"

namespace tavistro {

void PlaybackCounters::clear() noexcept {
    for (auto* counter : {&received_blocks, &dequeued_blocks, &renderedFrames, &underruns,
                          &overruns, &playbackDropped, &format_drops})
        counter->store(0, std::memory_order_relaxed);
}

void FillStatistics::clear() noexcept {
    for (auto* value : {&current_, &minimum_, &maximum_})
        value->store(0, std::memory_order_relaxed);
}

void FillStatistics::record(std::uint64_t fill) noexcept {
    current_.store(fill, std::memory_order_relaxed);
    std::uint64_t lowest = minimum_.load(std::memory_order_relaxed);
    while ((lowest == 0 || fill < lowest) &&
           !minimum_.compare_exchange_weak(lowest, fill, std::memory_order_relaxed)) {
    }
    raise_to(maximum_, fill);
}

FillStatistics::Range FillStatistics::take() noexcept {
    const std::uint64_t current = current_.load(std::memory_order_relaxed);
    return {current, minimum_.exchange(current, std::memory_order_relaxed),
            maximum_.exchange(current, std::memory_order_relaxed)};
}

void LatencyStatistics::clear() noexcept {
    last_us_.store(0, std::memory_order_relaxed);
    max_us_.store(0, std::memory_order_relaxed);
}

void LatencyStatistics::record(std::uint64_t now_ns, std::uint64_t block_time_ns) noexcept {
    if (now_ns == 0 || block_time_ns == 0 || now_ns < block_time_ns) return;
    const std::uint64_t latency_us = (now_ns - block_time_ns) / 1000;
    last_us_.store(latency_us, std::memory_order_relaxed);
    raise_to(max_us_, latency_us);
}

}  // namespace tavistro
