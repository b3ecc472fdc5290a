#include "tools/monitor/formats.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <istream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "tools/monitor/fields.h"
#include "tools/monitor/totals_fields.h"

namespace tavistro::monitor {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::pair<Presence, const char*> presence_names[] = {
    {Presence::absent, "absent"},
    {Presence::alive, "alive"},
    {Presence::silent, "silent"},
    {Presence::ended, "ended"},
};

const char* name_of(Presence presence) {
    return std::ranges::find(presence_names, presence, [](const auto& p) { return p.first; })
        ->second;
}

Presence presence_from(const std::string& name) {
    const auto* const found =
        std::ranges::find(presence_names, name, [](const auto& p) { return p.second; });
    if (found == std::end(presence_names)) throw std::runtime_error("unknown presence " + name);
    return found->first;
}

Json stats_json(const tavistro_stats_block& stats) {
    Json json = Json::object();
    for (const Field& field : fields()) {
        auto& value = json[std::string(field.name)];
        if (field.type == FieldType::histogram) {
            value = histogram(stats, field);
        } else {
            value = number(stats, field);
        }
    }
    return json;
}

tavistro_stats_block stats_from(const Json& json) {
    tavistro_stats_block stats{};
    for (const Field& field : fields()) {
        const auto& value = json.at(std::string(field.name));
        if (field.type == FieldType::histogram) {
            set_histogram(stats, field, value.get<Histogram>());
        } else {
            set_number(stats, field, value.get<std::int64_t>());
        }
    }
    return stats;
}

Json totals_json(const Totals& totals) {
    Json json = Json::object();
    for (const TotalsField& field : totals_fields())
        std::visit([&](auto value) { json[std::string(field.name)] = value; },
                   number(totals, field));
    return json;
}

Totals totals_from(const Json& json) {
    Totals totals;
    for (const TotalsField& field : totals_fields()) {
        const Json& value = json.at(std::string(field.name));
        if (field.is_real) {
            set_number(totals, field, value.get<double>());
        } else {
            set_number(totals, field, value.get<std::int64_t>());
        }
    }
    return totals;
}

Json sample_json(const Sample& sample) {
    return {{"time_ms", sample.time_ms},
            {"client_id", sample.client_id},
            {"presence", name_of(sample.presence)},
            {"host_late_us", sample.host_late_us},
            {"stats", sample.stats ? stats_json(*sample.stats) : Json()},
            {"totals", totals_json(sample.totals)}};
}

Json account_json(std::uint32_t client_id, const Account& account) {
    Json json{{"client_id", client_id},
              {"watched_s", account.watched_s},
              {"facts", Json::array()},
              {"causes", Json::array()},
              {"not_clear_yet", account.not_clear_yet}};
    for (const Fact& fact : account.facts)
        json["facts"].push_back({{"name", fact.name},
                                 {"from_s", fact.from_s},
                                 {"until_s", fact.until_s},
                                 {"text", fact.text}});
    for (const Finding& finding : account.causes)
        json["causes"].push_back({{"cause", cause_text(finding.cause)},
                                  {"from_s", finding.from_s},
                                  {"until_s", finding.until_s},
                                  {"text", finding.text}});
    return json;
}

/// As short as reads back exactly.
std::string text_of(const TotalsNumber& number) {
    std::array<char, 32> digits;
    return std::visit(
        [&](auto value) {
            return std::string(
                digits.data(),
                std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr);
        },
        number);
}

/// Seconds, as Prometheus wants them, exactly: 250 is 0.00025.
std::string seconds_text(std::uint32_t microseconds) {
    std::string digits = std::to_string(microseconds % 1'000'000);
    digits.insert(0, 6 - digits.size(), '0');
    return std::to_string(microseconds / 1'000'000).append(".").append(digits);
}

class PrometheusText {
  public:
    void family(const std::string& name, FieldKind kind, std::string_view help) {
        text_.append("# HELP ").append(name).append(" ").append(help).append("\n# TYPE ");
        text_.append(name).append(kind == FieldKind::counter ? " counter\n" : " gauge\n");
    }
    void value(const std::string& name, std::uint32_t client_id, const std::string& more_labels,
               const TotalsNumber& value) {
        text_.append(name).append("{client_id=\"").append(std::to_string(client_id)).append("\"");
        text_.append(more_labels).append("} ").append(text_of(value)).append("\n");
    }
    /// Buckets that include those below, as histogram_quantile() wants them.
    void buckets(const std::string& name, std::uint32_t client_id, const Histogram& counts) {
        std::int64_t sum = 0;
        for (std::size_t i = 0; i < counts.size(); ++i) {
            sum += counts[i];
            const bool last = i + 1 == counts.size();
            value(name, client_id,
                  ",le=\"" + (last ? std::string("+Inf") : seconds_text(histogram_bounds_us[i])) +
                      "\"",
                  sum);
        }
    }
    std::string take() { return std::move(text_); }

  private:
    std::string text_;
};

// The monitor counts some of what the engine counts, but for as long as it watches.
std::string prometheus_name(const TotalsField& field) {
    std::string name = "tavistro_monitor_";
    name.append(field.name);
    return field.kind == FieldKind::counter ? name + "_total" : name;
}

std::string prometheus_name(const Field& field) {
    std::string name = "tavistro_";
    name.append(field.name);
    if (field.type == FieldType::histogram)
        return name.replace(name.rfind("histogram"), std::string::npos, "seconds_bucket");
    return field.kind == FieldKind::counter ? name + "_total" : name;
}

}  // namespace

std::string to_json(const Sample& sample) {
    return sample_json(sample).dump();
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
        if (!json.at("stats").is_null()) sample.stats = stats_from(json["stats"]);
        sample.totals = totals_from(json["totals"]);
        return sample;
    } catch (const Json::exception& error) {
        throw std::runtime_error(error.what());
    }
}

std::string to_json_array(const Accounts& accounts) {
    Json json = Json::array();
    for (const auto& [client_id, account] : accounts)
        json.push_back(account_json(client_id, account));
    std::string text = json.dump();
    for (std::size_t at = 0; (at = text.find('<', at)) != std::string::npos;)
        text.replace(at, 1, "\\u003c");  // no end of the script, whatever the texts are
    return text;
}

std::string to_json_array(std::span<const Sample> samples) {
    std::string text = "[";
    for (const Sample& sample : samples) {
        if (text.size() > 1) text += ",\n";
        text += to_json(sample);
    }
    return text + "]";
}

std::vector<Sample> read_recording(std::istream& in) {
    std::vector<Sample> samples;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        try {
            samples.push_back(from_json(line));
        } catch (const std::runtime_error& error) {
            if (in.eof() && number > 1) break;
            throw std::runtime_error("line " + std::to_string(number) +
                                     " is not of a recording: " + error.what());
        }
    }
    return samples;
}

std::string csv_heading() {
    std::string text = "time_ms,presence,host_late_us";
    for (const Field& field : fields()) {
        if (field.type != FieldType::histogram) {
            text.append(",").append(field.name);
            continue;
        }
        for (std::size_t i = 0; i < TAVISTRO_STATS_HISTOGRAM_BUCKETS; ++i)
            text.append(",").append(field.name).append("_").append(std::to_string(i));
    }
    for (const TotalsField& field : totals_fields())
        text.append(",total_").append(field.name);
    return text;
}

std::string csv_row(const Sample& sample) {
    std::string text = std::to_string(sample.time_ms);
    text.append(",").append(name_of(sample.presence)).append(",");
    text += std::to_string(sample.host_late_us);
    // Without a block only the client is known.
    tavistro_stats_block stats = sample.stats.value_or(tavistro_stats_block{});
    stats.client_id = sample.client_id;
    for (const Field& field : fields()) {
        if (field.type != FieldType::histogram) {
            text.append(",").append(std::to_string(number(stats, field)));
            continue;
        }
        for (const std::uint32_t count : histogram(stats, field))
            text.append(",").append(std::to_string(count));
    }
    for (const TotalsField& field : totals_fields())
        text.append(",").append(text_of(number(sample.totals, field)));
    return text;
}

std::string to_prometheus(std::span<const Sample> samples) {
    PrometheusText text;
    text.family("tavistro_up", FieldKind::gauge, "Whether an engine of this client_id is running");
    for (const Sample& sample : samples)
        text.value("tavistro_up", sample.client_id, "",
                   std::int64_t{sample.presence == Presence::alive});
    for (const Field& field : fields()) {
        if (field.name == "client_id") continue;
        const std::string name = prometheus_name(field);
        text.family(name, field.kind, field.help);
        for (const Sample& sample : samples) {
            if (sample.presence != Presence::alive) continue;
            if (field.type == FieldType::histogram) {
                text.buckets(name, sample.client_id, histogram(*sample.stats, field));
            } else {
                text.value(name, sample.client_id, "", number(*sample.stats, field));
            }
        }
    }
    for (const TotalsField& field : totals_fields()) {
        const std::string name = prometheus_name(field);
        text.family(name, field.kind, field.help);
        for (const Sample& sample : samples) {
            if (sample.presence == Presence::alive)
                text.value(name, sample.client_id, "", number(sample.totals, field));
        }
    }
    return text.take();
}

}  // namespace tavistro::monitor
