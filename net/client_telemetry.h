// The record of the client's statistics.
#pragma once

#include <array>
#include <cstdint>

namespace tavistro {

inline constexpr std::size_t latency_bucket_count = 10;

/// Number of values in each latency bucket.
using LatencyHistogram = std::array<std::uint64_t, latency_bucket_count>;

/// Snapshot of the client's statistics. Counters count from the client's start; times are in
/// microseconds and 0 before the first sample.
struct ClientTelemetry {
    std::uint64_t recvBlocksPerSec = 0;  ///< new blocks in the last interval of at least 1000 ms
    std::uint64_t duplicateBlocksPerSec = 0;  ///< late or repeated blocks in that interval
    std::uint64_t rtt_samples = 0;
    std::uint64_t ping_timeouts = 0;
    std::uint32_t rtt_last_us = 0;
    std::uint32_t rtt_min_us = 0;
    std::uint32_t rtt_max_us = 0;
    std::uint32_t rtt_p50_us = 0;
    std::uint32_t rtt_p95_us = 0;
    std::uint32_t rtt_p99_us = 0;
    LatencyHistogram rtt_histogram{};
    bool clock_synced = false;
    std::uint32_t sync_rtt_us = 0;  ///< round trip of the pong that set the clock offset
    std::uint64_t sync_delay_samples = 0;
    std::uint32_t sync_delay_last_us = 0;
    std::uint32_t sync_delay_min_us = 0;
    std::uint32_t sync_delay_max_us = 0;
    std::uint32_t sync_delay_p50_us = 0;
    std::uint32_t sync_delay_p95_us = 0;
    std::uint32_t sync_delay_p99_us = 0;
    LatencyHistogram sync_delay_histogram{};
    std::uint32_t callback_last_us = 0;  ///< from arrival of a block to the end of its delivery
    std::uint32_t callback_max_us = 0;
};

}  // namespace tavistro
