// The client's statistics: blocks per second, round trips, sync delays, and their percentiles.
#pragma once

#include <array>
#include <cstdint>

#include "net/client_telemetry.h"

namespace tavistro {

/// Inclusive upper bounds of the latency buckets in microseconds; the last has no limit.
inline constexpr std::array<std::uint32_t, latency_bucket_count> latency_bucket_bounds_us = {
    250, 500, 1000, 2000, 5000, 10000, 20000, 50000, 100000, 4294967295U};

/// Nanoseconds as whole microseconds, rounded up, at most 2^32 - 1.
std::uint32_t ceil_to_us(std::uint64_t ns) noexcept;

/// Last, smallest and largest value of a series of times, and their histogram.
struct LatencySeries {
    std::uint64_t samples = 0;
    std::uint32_t last_us = 0;
    std::uint32_t min_us = 0;  ///< 0 means "none yet", so the next value replaces a minimum of 0
    std::uint32_t max_us = 0;
    LatencyHistogram histogram{};

    void record(std::uint32_t value_us) noexcept;
    /// Upper bound of the bucket that contains the percentile (`percent`: 1..100), or the largest
    /// value if that is the last bucket; 0 without values.
    std::uint32_t percentile_us(std::uint32_t percent) const noexcept;
};

/// Collects the values of ClientTelemetry. Not thread-safe; allocates nothing.
class ClientStatistics {
  public:
    /// Sets everything to zero; the first interval starts at tick `now_ms`.
    void reset(std::uint64_t now_ms) noexcept;

    void count_new_block() noexcept { ++received_; }
    void count_duplicate_block() noexcept { ++duplicates_; }
    void count_ping_timeout() noexcept { ++ping_timeouts_; }
    /// Records the round trip of an answered ping, which has also set the clock offset.
    void record_rtt(std::uint32_t rtt_us) noexcept;
    /// Records the network delay of a sync notice sent at server time `server_time_ns`.
    /// `clock_offset_ns` is the local clock minus the server clock. A negative delay counts as 0.
    void record_sync_delay(std::uint64_t now_ns, std::int64_t clock_offset_ns,
                           std::uint64_t server_time_ns) noexcept;
    /// Records the time from a block's arrival to the end of its delivery, `now_ns`. Ignored if the
    /// arrival is unknown (0) or later.
    void record_callback_latency(std::uint64_t arrival_ns, std::uint64_t now_ns) noexcept;

    /// Ends an interval of at least 1000 ms: returns true and updates the per-second values.
    bool rollover(std::uint64_t now_ms) noexcept;
    ClientTelemetry snapshot(bool clock_synced) const noexcept;

  private:
    std::uint64_t received_ = 0;
    std::uint64_t duplicates_ = 0;
    std::uint64_t received_per_sec_ = 0;
    std::uint64_t duplicates_per_sec_ = 0;
    std::uint64_t last_rollover_ms_ = 0;
    std::uint64_t ping_timeouts_ = 0;
    LatencySeries rtt_;
    std::uint32_t sync_rtt_us_ = 0;
    LatencySeries sync_delay_;
    std::uint32_t callback_last_us_ = 0;
    std::uint32_t callback_max_us_ = 0;
};

}  // namespace tavistro
