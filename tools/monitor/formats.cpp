#include "tools/monitor/formats.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "tools/readings/fields_json.h"
#include "tools/version_flag.h"

namespace tavistro::monitor {

namespace {

using readings::Field;
using readings::FieldType;
using readings::histogram;
using readings::Json;
using readings::number;
using readings::stats_fields;

constexpr std::string_view presence_names[] = {"absent", "alive", "silent", "ended"};

std::string_view name_of(Presence presence) {
    return presence_names[static_cast<std::size_t>(presence)];
}

Presence presence_from(const std::string& name) {
    const auto* const found = std::ranges::find(presence_names, name);
    if (found == std::end(presence_names)) throw std::runtime_error("unknown presence " + name);
    return static_cast<Presence>(found - presence_names);
}

Json sample_json(const Sample& sample) {
    Json json{{"time_ms", sample.time_ms},
              {"client_id", sample.client_id},
              {"presence", name_of(sample.presence)},
              {"host_late_us", sample.host_late_us},
              {"stats", nullptr},
              {"totals", nullptr}};
    if (sample.stats) readings::add_fields(json["stats"], &*sample.stats, stats_fields());
    readings::add_fields(json["totals"], &sample.totals, totals_fields());
    return json;
}

Json account_json(std::uint32_t client_id, const Account& account) {
    Json facts = Json::array();
    Json causes = Json::array();
    const auto add = [](Json& list, const char* key, std::string_view name, const auto& told) {
        list.push_back({{key, name},
                        {"from_s", told.when.from_s},
                        {"until_s", told.when.until_s},
                        {"text", told.text}});
    };
    for (const Fact& fact : account.facts)
        add(facts, "name", fact.name, fact);
    for (const Finding& finding : account.causes)
        add(causes, "cause", cause_text(finding.cause), finding);
    return {{"client_id", client_id},
            {"from_ms", account.from_ms},
            {"watched_s", account.watched_s},
            {"facts", facts},
            {"causes", causes},
            {"not_clear_yet", account.not_clear_yet}};
}

/// As short as reads back exactly.
std::string text_of(const readings::Number& number) {
    return std::visit([](auto value) { return fmt::to_string(value); }, number);
}

void add_columns(std::string& heading, std::string_view prefix, std::span<const Field> fields) {
    for (const Field& field : fields) {
        heading += fmt::format(",{}{}", prefix, field.name);
        if (field.type != FieldType::histogram) continue;
        heading += "_0";
        for (std::size_t i = 1; i < readings::histogram_bounds_us.size(); ++i)
            heading += fmt::format(",{}{}_{}", prefix, field.name, i);
    }
}

void add_values(std::string& row, const void* record, std::span<const Field> fields) {
    for (const Field& field : fields) {
        if (field.type == FieldType::histogram) {
            row += fmt::format(",{}", fmt::join(histogram(record, field), ","));
        } else {
            row.append(",").append(text_of(number(record, field)));
        }
    }
}

}  // namespace

std::string to_json(const Sample& sample) {
    return sample_json(sample).dump();
}

std::string to_json_array(std::span<const Sample> samples) {
    std::vector<std::string> objects;
    for (const Sample& sample : samples)
        objects.push_back(to_json(sample));
    return fmt::format("[{}]", fmt::join(objects, ",\n"));
}

std::string to_json(std::uint32_t client_id, const Account& account) {
    std::string text = account_json(client_id, account).dump();
    for (std::size_t at = 0; (at = text.find('<', at)) != std::string::npos;)
        text.replace(at, 1, "\\u003c");  // no end of the script, whatever the texts are
    return text;
}

std::string to_json_array(const Accounts& accounts) {
    std::vector<std::string> objects;
    for (const auto& [client_id, account] : accounts)
        objects.push_back(to_json(client_id, account));
    return fmt::format("[{}]", fmt::join(objects, ",\n"));
}

std::string engines_json(std::int64_t monitor_start_ms, std::span<const Sample> newest,
                         const Accounts& accounts) {
    Json engines = Json::array();
    for (const Sample& sample : newest)
        engines.push_back(
            {{"client_id", sample.client_id},
             {"newest", sample_json(sample)},
             {"diagnosis", account_json(sample.client_id, accounts.at(sample.client_id))}});
    return Json{{"monitor_version", version_text},
                {"monitor_start_ms", monitor_start_ms},
                {"engines", engines}}
        .dump();
}

Sample from_json(const std::string& line) {
    try {
        const Json json = Json::parse(line);
        Sample sample{.time_ms = json.at("time_ms").get<std::int64_t>(),
                      .client_id = json.at("client_id").get<std::uint32_t>(),
                      .presence = presence_from(json.at("presence").get<std::string>())};
        if (!json.contains("totals"))
            throw std::runtime_error("it has no totals, an older monitor made it");
        sample.host_late_us = json.at("host_late_us").get<std::uint32_t>();
        if (!json.at("stats").is_null()) {
            sample.stats.emplace();
            readings::take_fields(json["stats"], &*sample.stats, stats_fields());
        }
        readings::take_fields(json["totals"], &sample.totals, totals_fields());
        return sample;
    } catch (const Json::exception& error) {
        throw std::runtime_error(error.what());
    }
}

std::string csv_heading() {
    std::string heading = "time_ms,presence,host_late_us";
    add_columns(heading, "", stats_fields());
    add_columns(heading, "total_", totals_fields());
    return heading;
}

std::string csv_row(const Sample& sample) {
    std::string row =
        fmt::format("{},{},{}", sample.time_ms, name_of(sample.presence), sample.host_late_us);
    // Without a block only the client is known.
    tavistro_stats_block stats = sample.stats.value_or(tavistro_stats_block{});
    stats.client_id = sample.client_id;
    add_values(row, &stats, stats_fields());
    add_values(row, &sample.totals, totals_fields());
    return row;
}

}  // namespace tavistro::monitor
