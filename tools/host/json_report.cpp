#include <algorithm>
#include <nlohmann/json.hpp>
#include <ostream>
#include <span>

#include "tools/host/report.h"
#include "tools/readings/texts.h"

namespace tavistro::host {

namespace {

using Json = nlohmann::ordered_json;

Json code_and_text(std::uint32_t code, std::string_view text) {
    return {{"code", code}, {"text", text}};
}

Json format_json(std::uint32_t sample_rate, std::uint32_t block_frames) {
    return {{"sample_rate", sample_rate}, {"block_frames", block_frames}};
}

Json meters_json(std::span<const tavistro_channel_meter> meters, std::uint32_t count) {
    Json list = Json::array();
    for (const auto& meter : meters.first(std::min<std::size_t>(count, meters.size()))) {
        list.push_back({{"channel", meter.channel}, {"peak_permille", meter.peak_permille}});
    }
    return list;
}

/// What the state and the status lines have in common.
Json line_json(std::string_view type, double time_s, const tavistro_engine_state& state) {
    return {
        {"type", type},
        {"time_s", time_s},
        {"state", code_and_text(state.state, state_text(state.state))},
        {"level", code_and_text(state.status_level, level_text(state.status_level))},
        {"category", code_and_text(state.status_category, category_text(state.status_category))},
        {"message", code_and_text(state.status_message, message_text(state.status_message))},
        {"error", code_and_text(state.error_code, error_text(state.error_code))},
    };
}

Json stats_json(const tavistro_stats_block& stats) {
    return {
        {"buffer_frames", stats.playback_buffer_frames},
        {"target_frames", stats.target_frames},
        {"buffer_us", stats.buffer_us},
        {"ratio_ppm", stats.ratio_ppm},
        {"rtt_last_us", stats.rtt_last_us},
        {"rtt_max_us", stats.rtt_max_us},
        {"server_to_output_last_us", stats.server_to_output_last_us},
        {"server_to_output_max_us", stats.server_to_output_max_us},
        {"underruns", stats.underruns},
        {"overruns", stats.overruns},
        {"playback_dropped", stats.playback_dropped},
        {"capture_dropped", stats.capture_dropped},
    };
}

class JsonReport : public Report {
  public:
    explicit JsonReport(std::ostream& out) : out_(out) {}

    void state_changed(double time_s, const tavistro_engine_state& state) override {
        write(line_json("state", time_s, state));
    }

    void event(double time_s, const NewEvent& news) override {
        const tavistro_engine_event& event = news.event;
        write({
            {"type", "event"},
            {"time_s", time_s},
            {"sequence", event.sequence},
            {"missed_before", news.missed_before},
            {"system_time_ms", event.time_ms},
            {"kind", code_and_text(event.kind, event_kind_text(event.kind))},
            {"subject", code_and_text(event.subject, category_text(event.subject))},
            {"attempt", event.attempt},
            {"max_attempts", event.max_attempts},
            {"error", code_and_text(event.error_code, error_text(event.error_code))},
            {"message", code_and_text(event.message, message_text(event.message))},
        });
    }

    void status(double time_s, const tavistro_engine_state& state,
                const std::optional<tavistro_stats_block>& stats) override {
        Json line = line_json("status", time_s, state);
        line["stream"] = format_json(state.stream_sample_rate, state.stream_block_frames);
        line["device"] = format_json(state.device_sample_rate, state.device_block_frames);
        line["input_meters"] = meters_json(state.input_meters, state.input_meter_count);
        line["output_meters"] = meters_json(state.output_meters, state.output_meter_count);
        line["stats"] = stats ? stats_json(*stats) : Json();
        write(line);
    }

    void summary(const RunSummary& summary) override {
        Json line = line_json("summary", summary.seconds, summary.last);
        line["cpu_seconds_per_second"] =
            summary.has_played() ? Json(summary.cpu_seconds / summary.seconds) : Json();
        line["stats"] = summary.stats ? stats_json(*summary.stats) : Json();
        write(line);
    }

  private:
    void write(const Json& line) { out_ << line.dump() << std::endl; }

    std::ostream& out_;
};

}  // namespace

std::unique_ptr<Report> make_json_report(std::ostream& out) {
    return std::make_unique<JsonReport>(out);
}

}  // namespace tavistro::host
