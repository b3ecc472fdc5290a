#include "tools/host/json_lines.h"

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
                const std::optional<tavistro_stats_block>& stats) override {
        Json line = state_line("status", time_s, state);
        line["input_meters"] = meters_json(input_meters(state));
        line["output_meters"] = meters_json(output_meters(state));
        line["stats"] = stats_json(stats);
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

std::string json_line(std::int32_t number, const std::string& name, const DriverSurvey& survey) {
    const auto& [channels, sizes, current_rate, accepted_rates, input_types, output_types, faults] =
        survey;
    Json line{{"type", "device"}, {"number", number}, {"name", name}};
    line["inputs"] = channels ? Json(channels->inputs) : Json();
    line["outputs"] = channels ? Json(channels->outputs) : Json();
    line["input_types"] = input_types;
    line["output_types"] = output_types;
    line["buffer_frames"] = nullptr;
    if (sizes)
        line["buffer_frames"] = {{"minimum", sizes->minimum},
                                 {"maximum", sizes->maximum},
                                 {"preferred", sizes->preferred},
                                 {"granularity", sizes->granularity}};
    line["sample_rate"] = current_rate ? Json(*current_rate) : Json();
    line["accepted_sample_rates"] = accepted_rates;
    line["faults"] = faults;
    return line.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string json_line(const AnsweringServer& server) {
    return Json{{"type", "server"},
                {"address", platform::format_ipv4(server.endpoint.address)},
                {"port", server.endpoint.port},
                {"address_class", server.address_class},
                {"address_class_text", address_class_text(server.address_class)},
                {"protocol_version", server.protocol_version},
                {"compatible", server.compatible},
                {"rtt_us", server.round_trip_ns / 1000}}
        .dump();
}

}  // namespace tavistro::host
