// What happened to an engine between its first and last reading of a span of time.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "tools/monitor/fields.h"
#include "tools/monitor/sample.h"

namespace tavistro::monitor {

/// Two readings of one run of the audio path, a second or more apart.
struct Step {
    double from_s;
    double until_s;
    std::uint32_t host_late_us;  ///< 0 when not measured
    tavistro_stats_block before;
    tavistro_stats_block after;

    double seconds() const { return until_s - from_s; }
    /// The longest that this computer was seen to let a thread wait.
    std::uint32_t longest_pause_us() const;
    std::int64_t slips() const;
    bool same_format(const Step& other) const {
        return after.stream_sample_rate == other.after.stream_sample_rate &&
               after.stream_block_frames == other.after.stream_block_frames;
    }
    /// Not one notice of the server's clock arrived.
    bool server_is_quiet() const { return after.sync_delay_samples == before.sync_delay_samples; }
};

/// Pairs of consecutive readings of an engine that runs, without those across a restart.
std::vector<Step> steps_of(std::span<const Sample> samples);

/// Sums and averages over steps of one format during which the server was heard. Rates are per
/// second.
struct Interval {
    explicit Interval(std::span<const Step> steps);

    double seconds = 0;
    double quiet_seconds = 0;  ///< without the server; not part of what follows
    double received_per_s = 0;
    double repeated_per_s = 0;  ///< late or repeated blocks
    double queued_per_s = 0;
    double periods_per_s = 0;
    double still_seconds = 0;  ///< without one device period
    std::int64_t underruns = 0;
    std::int64_t overruns = 0;
    std::int64_t dropped = 0;  ///< blocks, overruns among them
    std::int64_t rendered_frames = 0;
    double mean_error_frames = 0;  ///< fill minus target
    double read_speed_ppm = 0;     ///< as of a single reading
    Histogram sync_delays{};       ///< of the interval alone
    double notices_per_s = 0;      ///< of the server's clock, from when the clocks were known
    std::uint32_t host_late_us = 0;
    std::uint32_t longest_pause_us = 0;    ///< host_late_us and what the engine's threads met
    std::int64_t slips_beside_pauses = 0;  ///< in steps with a long pause, or right behind one
    tavistro_stats_block last{};

    /// Device periods without a block, and blocks without a place.
    std::int64_t slips() const { return underruns + overruns; }
    /// Shorter pauses than two blocks any buffer holds.
    double long_pause_us() const;
    double block_us() const { return 1e6 * last.stream_block_frames / last.stream_sample_rate; }
    double blocks_per_s() const { return 1e6 / block_us(); }
    double latency_blocks() const {
        return static_cast<double>(last.target_frames) / last.stream_block_frames;
    }
    /// Blocks that never came, or too late: silence was queued in their place.
    double replaced_per_s() const;
    bool has_format() const { return last.stream_sample_rate > 0 && last.stream_block_frames > 0; }

  private:
    void add(const Step& step);
    void add_pauses(std::span<const Step> steps);
};

}  // namespace tavistro::monitor
