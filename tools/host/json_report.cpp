#include <algorithm>
#include <nlohmann/json.hpp>
#include <ostream>
#include <span>

#include "tools/host/report.h"
#include "tools/readings/fields_json.h"

namespace tavistro::host {

namespace {

using readings::Json;

Json meters_json(std::span<const tavistro_channel_meter> meters, std::uint32_t count) {
    Json list = Json::array();
    for (const auto& meter : meters.first(std::min<std::size_t>(count, meters.size())))
        readings::add_fields(list.emplace_back(), &meter, readings::meter_fields());
    return list;
}

Json state_line(std::string_view type, double time_s, const tavistro_engine_state& state) {
    Json line{{"type", type}, {"time_s", time_s}};
    readings::add_fields(line, &state, readings::state_fields());
    return line;
}

void add_stats(Json& line, const std::optional<tavistro_stats_block>& stats) {
    Json& object = line["stats"];
    if (stats) readings::add_fields(object, &*stats, readings::stats_fields());
}

class JsonReport : public Report {
  public:
    explicit JsonReport(std::ostream& out) : out_(out) {}

    void state_changed(double time_s, const tavistro_engine_state& state) override {
        write(state_line("state", time_s, state));
    }

    void event(double time_s, const NewEvent& news) override {
        Json line{{"type", "event"}, {"time_s", time_s}, {"missed_before", news.missed_before}};
        readings::add_fields(line, &news.event, readings::event_fields());
        write(line);
    }

    void status(double time_s, const tavistro_engine_state& state,
                const std::optional<tavistro_stats_block>& stats) override {
        Json line = state_line("status", time_s, state);
        line["input_meters"] = meters_json(state.input_meters, state.input_meter_count);
        line["output_meters"] = meters_json(state.output_meters, state.output_meter_count);
        add_stats(line, stats);
        write(line);
    }

    void summary(const RunSummary& summary) override {
        Json line = state_line("summary", summary.seconds, summary.last);
        line["cpu_seconds_per_second"] =
            summary.has_played() ? Json(summary.cpu_seconds / summary.seconds) : Json();
        add_stats(line, summary.stats);
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
