#include "net/client_statistics.h"

#include <algorithm>
#include <limits>

namespace tavistro {

namespace {

constexpr std::uint64_t interval_ms = 1000;
constexpr std::uint32_t longest_us = std::numeric_limits<std::uint32_t>::max();

std::uint32_t saturate_us(std::uint64_t us) noexcept {
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(us, longest_us));
}

}  // namespace

std::uint32_t ceil_to_us(std::uint64_t ns) noexcept {
    return saturate_us(ns / 1000 + (ns % 1000 != 0 ? 1 : 0));
}

void LatencySeries::record(std::uint32_t value_us) noexcept {
    ++samples;
    last_us = value_us;
    if (min_us == 0 || value_us < min_us) min_us = value_us;
    max_us = std::max(max_us, value_us);
    const auto* bound = std::lower_bound(latency_bucket_bounds_us.begin(),
                                         latency_bucket_bounds_us.end(), value_us);
    ++histogram[static_cast<std::size_t>(bound - latency_bucket_bounds_us.begin())];
}

std::uint32_t LatencySeries::percentile_us(std::uint32_t percent) const noexcept {
    if (samples == 0) return 0;
    const std::uint64_t threshold = (percent * samples + 99) / 100;
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i + 1 < histogram.size(); ++i) {
        sum += histogram[i];
        if (sum >= threshold) return latency_bucket_bounds_us[i];
    }
    return max_us;
}

void ClientStatistics::reset(std::uint64_t now_ms) noexcept {
    *this = ClientStatistics();
    last_rollover_ms_ = now_ms;
}

void ClientStatistics::record_rtt(std::uint32_t rtt_us) noexcept {
    sync_rtt_us_ = rtt_us;
    rtt_.record(rtt_us);
}

void ClientStatistics::record_sync_delay(std::uint64_t now_ns, std::int64_t clock_offset_ns,
                                         std::uint64_t server_time_ns) noexcept {
    const double sent_ns =
        static_cast<double>(clock_offset_ns) + static_cast<double>(server_time_ns);
    const double delay_ns = static_cast<double>(now_ns) - sent_ns;
    constexpr double longest_ns = 1000.0 * longest_us;
    if (delay_ns >= longest_ns) {
        sync_delay_.record(longest_us);
    } else {
        sync_delay_.record(ceil_to_us(static_cast<std::uint64_t>(std::max(delay_ns, 0.0))));
    }
}

void ClientStatistics::record_callback_latency(std::uint64_t arrival_ns,
                                               std::uint64_t now_ns) noexcept {
    if (arrival_ns == 0 || arrival_ns > now_ns) return;
    callback_last_us_ = saturate_us((now_ns - arrival_ns) / 1000);
    callback_max_us_ = std::max(callback_max_us_, callback_last_us_);
}

bool ClientStatistics::rollover(std::uint64_t now_ms) noexcept {
    if (now_ms - last_rollover_ms_ < interval_ms) return false;
    received_per_sec_ = received_;
    duplicates_per_sec_ = duplicates_;
    received_ = duplicates_ = 0;
    last_rollover_ms_ = now_ms;
    return true;
}

ClientTelemetry ClientStatistics::snapshot(bool clock_synced) const noexcept {
    ClientTelemetry telemetry;
    telemetry.recvBlocksPerSec = received_per_sec_;
    telemetry.duplicateBlocksPerSec = duplicates_per_sec_;
    telemetry.rtt_samples = rtt_.samples;
    telemetry.ping_timeouts = ping_timeouts_;
    telemetry.rtt_last_us = rtt_.last_us;
    telemetry.rtt_min_us = rtt_.min_us;
    telemetry.rtt_max_us = rtt_.max_us;
    telemetry.rtt_p50_us = rtt_.percentile_us(50);
    telemetry.rtt_p95_us = rtt_.percentile_us(95);
    telemetry.rtt_p99_us = rtt_.percentile_us(99);
    telemetry.rtt_histogram = rtt_.histogram;
    telemetry.clock_synced = clock_synced;
    telemetry.sync_rtt_us = sync_rtt_us_;
    telemetry.sync_delay_samples = sync_delay_.samples;
    telemetry.sync_delay_last_us = sync_delay_.last_us;
    telemetry.sync_delay_min_us = sync_delay_.min_us;
    telemetry.sync_delay_max_us = sync_delay_.max_us;
    telemetry.sync_delay_p50_us = sync_delay_.percentile_us(50);
    telemetry.sync_delay_p95_us = sync_delay_.percentile_us(95);
    telemetry.sync_delay_p99_us = sync_delay_.percentile_us(99);
    telemetry.sync_delay_histogram = sync_delay_.histogram;
    telemetry.callback_last_us = callback_last_us_;
    telemetry.callback_max_us = callback_max_us_;
    return telemetry;
}

}  // namespace tavistro
