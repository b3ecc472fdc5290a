#include "tools/monitor/metrics.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "tavistro/engine.h"
#include "tools/http/metrics_text.h"
#include "tools/readings/read_speed.h"
#include "tools/readings/texts.h"
#include "tools/version_flag.h"

namespace tavistro::monitor {

namespace {

using Block = tavistro_stats_block;

/// A number of each engine that runs.
template <typename Record>
struct Metric {
    std::string_view name;
    std::string_view help;
    double (*value)(const Record&);
};

constexpr double seconds(std::int64_t microseconds) {
    return static_cast<double>(microseconds) / 1e6;
}
/// Frames of the stream in seconds; 0 before the format is known.
double duration(std::uint32_t frames, const Block& block) {
    return block.stream_sample_rate == 0 ? 0 : double{1} * frames / block.stream_sample_rate;
}

#define VALUE(expression) [](const auto& r) { return static_cast<double>(expression); }

constexpr Metric<Block> block_gauges[] = {
    {"error_code", "Error of the engine; 0 for none", VALUE(r.error_code)},
    {"stream_sample_rate_hertz", "Sample rate of the stream", VALUE(r.stream_sample_rate)},
    {"stream_block_frames", "Frames per block of the stream", VALUE(r.stream_block_frames)},
    {"clock_synced", "1 when the offset to the server's clock is known", VALUE(r.clock_synced)},
    {"round_trip_last_seconds", "Newest round trip", VALUE(seconds(r.rtt_last_us))},
    {"buffer_seconds", "Depth of the playback buffer", VALUE(seconds(r.buffer_us))},
    {"buffer_target_seconds", "Depth that the drift control aims at",
     VALUE(duration(r.target_frames, r))},
    {"buffer_lowest_seconds", "Lowest depth in the engine's last report",
     VALUE(duration(r.min_frames, r))},
    {"buffer_highest_seconds", "Highest depth in the engine's last report",
     VALUE(duration(r.max_frames, r))},
    {"playback_speed_ratio", "Speed at which the buffer is read, relative to the device's clock",
     VALUE(1 + readings::read_speed_ppm(r) / 1e6)},
    {"server_to_output_seconds", "Newest time from the server's timestamp to the output",
     VALUE(seconds(r.server_to_output_last_us))},
    {"playback_queue_seconds", "Newest time from a block's delivery to the output",
     VALUE(seconds(r.queue_latency_last_us))},
    {"period_work_seconds", "Newest processing time of a device period",
     VALUE(seconds(r.callback_duration_last_us))},
};
constexpr Metric<Block> block_counters[] = {
    {"ping_timeouts_total", "Pings without a reply", VALUE(r.ping_timeouts)},
    {"underruns_total", "Device periods without a block to play", VALUE(r.underruns)},
    {"overruns_total", "Blocks that found the playback buffer full", VALUE(r.overruns)},
    {"playback_dropped_total", "Blocks dropped before playback, with overruns",
     VALUE(r.playback_dropped)},
    {"capture_dropped_total", "Captured blocks dropped", VALUE(r.capture_dropped)},
    {"rendered_frames_total", "Frames played", VALUE(r.rendered_frames)},
};
// Counted by the monitor for as long as it watches; all begin anew with each run of the audio path.
constexpr Metric<Totals> monitor_counters[] = {
    {"watched_seconds_total", "Time that the run was watched", VALUE(seconds(1000 * r.watched_ms))},
    {"blocks_total", "Blocks handed to the player, silence for missing ones too", VALUE(r.blocks)},
    {"sync_notices_total", "Sync notices", VALUE(r.notices)},
    {"periods_total", "Device periods", VALUE(r.periods)},
    {"blocks_lost_total", "Blocks that silence was played for", VALUE(r.replaced.count)},
    {"blocks_repeated_total", "Blocks that came again, or after silence had replaced them",
     VALUE(r.repeated.count)},
    {"blocks_refused_total", "Blocks dropped for their format", VALUE(r.refused)},
    {"sync_notices_missed_total", "Sync notices that never came", VALUE(r.notices_missed.count)},
    {"server_silent_seconds_total", "Time without anything from the server, in spans over 1 s",
     VALUE(seconds(1000 * r.silence.count))},
    {"stream_held_up_total", "Spans without a sync notice that were made up for",
     VALUE(r.late.count)},
    {"periods_too_few_total", "Device periods too few, in seconds with clearly too few",
     VALUE(r.periods_short.count)},
    {"periods_too_many_total", "Device periods too many, in seconds with clearly too many",
     VALUE(r.periods_long.count)},
    {"host_pauses_total", "Pauses of this computer's threads longer than a block",
     VALUE(r.pauses.count)},
};
constexpr Metric<Totals> monitor_gauges[] = {
    {"server_clock_ratio", "Speed of the server's clock relative to the device's; 1 until measured",
     VALUE(1 + (r.clock_uncertainty_ppm > 0 ? r.server_faster_ppm : 0) / 1e6)},
    {"server_clock_uncertainty_ratio",
     "Uncertainty of server_clock_ratio, plus or minus; 0 until measured",
     VALUE(r.clock_uncertainty_ppm / 1e6)},
};

#undef VALUE

std::string client_label(std::uint32_t client_id) {
    return fmt::format("client_id=\"{}\"", client_id);
}

/// "device_too_slow" for "device too slow".
std::string label_text(std::string_view name) {
    std::string text(name);
    std::ranges::replace(text, ' ', '_');
    return text;
}

class Page {
  public:
    explicit Page(std::span<const Sample> samples) : samples_(samples) {}

    template <typename Each>
    void for_running(const Each& each) const {
        for (const Sample& sample : samples_)
            if (sample.presence == Presence::alive) each(sample, client_label(sample.client_id));
    }
    template <typename Record, std::size_t count, typename RecordOf>
    void add(std::string_view prefix, std::string_view type, const Metric<Record> (&metrics)[count],
             const RecordOf& record_of) {
        for (const Metric<Record>& metric : metrics) {
            text.family(fmt::format("{}{}", prefix, metric.name), type, metric.help);
            for_running([&](const Sample& sample, const std::string& label) {
                text.value(label, metric.value(record_of(sample)));
            });
        }
    }
    void add_histogram(std::string_view name, std::string_view help,
                       const std::uint32_t (Block::*counts)[TAVISTRO_STATS_HISTOGRAM_BUCKETS]) {
        std::array<double, TAVISTRO_STATS_HISTOGRAM_BUCKETS - 1> bounds{};
        std::transform(readings::histogram_bounds_us.begin(),
                       readings::histogram_bounds_us.begin() + bounds.size(), bounds.begin(),
                       seconds);
        text.family(name, "histogram",
                    fmt::format("{}; the sum is estimated from the middle of each bucket", help));
        for_running([&](const Sample& sample, const std::string& label) {
            text.histogram(label, bounds, (*sample.stats).*counts);
        });
    }

    http::MetricsText text;

  private:
    std::span<const Sample> samples_;
};

}  // namespace

std::string to_prometheus(std::span<const Sample> samples, const Accounts& accounts) {
    Page page(samples);
    http::MetricsText& text = page.text;
    text.build_info("tavistro_monitor_build_info", version_text);
    text.family("tavistro_up", "gauge", "1 when an engine with this client_id runs");
    for (const Sample& sample : samples)
        text.value(client_label(sample.client_id), sample.presence == Presence::alive);
    text.family("tavistro_state", "gauge", "1 for the state that the engine is in");
    page.for_running([&](const Sample& sample, const std::string& label) {
        for (std::uint32_t state = TAVISTRO_STATE_IDLE; state <= TAVISTRO_STATE_FAILED; ++state)
            text.value(
                fmt::format("{},state=\"{}\"", label, label_text(readings::state_text(state))),
                sample.stats->state == state);
    });
    text.family("tavistro_cause", "gauge",
                "1 when the diagnosis of the last 2 minutes names this cause of dropouts");
    for (const auto& [client_id, account] : accounts) {
        for (std::size_t i = 0; i < cause_count; ++i) {
            const auto cause = static_cast<Cause>(i);
            text.value(
                fmt::format("{},cause=\"{}\"", client_label(client_id),
                            label_text(cause_text(cause))),
                std::ranges::find(account.causes, cause, &Finding::cause) != account.causes.end());
        }
    }
    text.family("tavistro_cause_unclear", "gauge",
                "1 when there were dropouts in the last 2 minutes that no cause explains");
    for (const auto& [client_id, account] : accounts)
        text.value(client_label(client_id), !account.not_clear_yet.empty());

    const auto block_of = [](const Sample& sample) -> const Block& { return *sample.stats; };
    const auto totals_of = [](const Sample& sample) -> const Totals& { return sample.totals; };
    page.add("tavistro_", "gauge", block_gauges, block_of);
    page.add("tavistro_", "counter", block_counters, block_of);
    page.add_histogram("tavistro_round_trip_seconds", "Round trips", &Block::rtt_histogram);
    page.add_histogram("tavistro_sync_notice_delay_seconds", "Delays of sync notices",
                       &Block::sync_delay_histogram);
    page.add("tavistro_monitor_", "counter", monitor_counters, totals_of);
    page.add("tavistro_monitor_", "gauge", monitor_gauges, totals_of);
    text.family("tavistro_monitor_host_late_seconds", "gauge",
                "Longest late wake-up of a thread on this computer since the reading before");
    if (!samples.empty()) text.value("", seconds(samples.front().host_late_us));
    return text.text();
}

}  // namespace tavistro::monitor
