// The client's counting: blocks per second, round trips, delays, and the percentiles of both.
#pragma once

#include <array>
#include <cstdint>

#include "net/client_telemetry.h"

namespace tavistro {

/// Inclusive upper bounds of the latency buckets in microseconds; the last takes the rest.
inline constexpr std::array<std::uint32_t, latency_bucket_count> latency_bucket_bounds_us = {
    250, 500, 1000, 2000, 5000, 10000, 20000, 50000, 100000, 4294967295U};

/// Nanoseconds as whole microseconds, rounded up, at most 2^32 - 1.
std::uint32_t ceil_to_us(std::uint64_t ns) noexcept;

/// Last, smallest and largest of a series of times, with their histogram.
struct LatencySeries {
    std::uint64_t samples = 0;
    std::uint32_t last_us = 0;
    std::uint32_t min_us = 0;  ///< 0: none yet; so a 0 gives way to the next value
    std::uint32_t max_us = 0;
    LatencyHistogram histogram{};

    void record(std::uint32_t value_us) noexcept;
    /// The bound of the bucket in which `percent` of the values (1..100) are reached, the largest
    /// value when that is the last bucket, 0 without values.
    std::uint32_t percentile_us(std::uint32_t percent) const noexcept;
};

/// Everything that ClientTelemetry shows, counted. Not thread-safe; allocates nothing.
class ClientStatistics {
  public:
    /// Everything to zero; the first interval begins at tick `now_ms`.
    void reset(std::uint64_t now_ms) noexcept;

    void count_new_block() noexcept { ++received_; }
    void count_duplicate_block() noexcept { ++duplicates_; }
    void count_ping_timeout() noexcept { ++ping_timeouts_; }
    /// The round trip of a ping, which set the clock offset.
    void record_rtt(std::uint32_t rtt_us) noexcept;
    /// How long a notice of server time `server_time_ns` took to us, from the clock offset (our
    /// clock minus the server's); negative ones count as 0.
    void record_sync_delay(std::uint64_t now_ns, std::int64_t clock_offset_ns,
                           std::uint64_t server_time_ns) noexcept;
    /// From a block's arrival to the end of its delivery; ignored when the arrival is unknown (0)
    /// or later than `now_ns`.
    void record_callback_latency(std::uint64_t arrival_ns, std::uint64_t now_ns) noexcept;

    /// Ends the interval if it has lasted 1000 ms: true, and the per-second values are new.
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
