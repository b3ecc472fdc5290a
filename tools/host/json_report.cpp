#include <nlohmann/json.hpp>
#include <ostream>

#include "tools/host/report.h"
#include "tools/readings/fields_json.h"

namespace tavistro::host {

namespace {

using readings::Json;

Json state_line(std::string_view type, double time_s, const tavistro_engine_state& state) {
    Json line{{"type", type}, {"time_s", time_s}};
    readings::add_fields(line, &state, readings::state_fields());
    return line;
}

Json stats_json(const std::optional<tavistro_stats_block>& stats) {
    Json object;
    if (stats) readings::add_fields(object, &*stats, readings::stats_fields());
    return object;
}

Json meters_json(Meters meters) {
    Json list = Json::array();
    for (const tavistro_channel_meter& meter : meters)
        readings::add_fields(list.emplace_back(), &meter, readings::meter_fields());
    return list;
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
                const std::optional<RunStats>& stats) override {
        Json line = state_line("status", time_s, state);
        line["input_meters"] = meters_json(input_meters(state));
        line["output_meters"] = meters_json(output_meters(state));
        line["stats"] = stats ? stats_json(stats->block) : Json();
        line["playback_age_s"] = stats ? Json(stats->playback_age_s) : Json();
        line["round_trip_age_s"] = stats ? Json(stats->round_trip_age_s) : Json();
        write(line);
    }

    void summary(const RunSummary& summary) override {
        Json line = state_line("summary", summary.seconds, summary.last);
        line["cpu_seconds_per_second"] =
            summary.has_played() ? Json(summary.cpu_seconds / summary.seconds) : Json();
        line["stats"] = stats_json(summary.stats);
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
