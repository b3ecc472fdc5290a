#include "tools/monitor/formats.h"

#include <algorithm>
#include <istream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "tools/monitor/fields.h"

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

Json sample_json(const Sample& sample) {
    Json json{{"time_ms", sample.time_ms},
              {"client_id", sample.client_id},
              {"presence", name_of(sample.presence)}};
    if (sample.host_late_us) json["host_late_us"] = *sample.host_late_us;
    json["stats"] = sample.stats ? stats_json(*sample.stats) : Json();
    return json;
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
               std::int64_t value) {
        text_.append(name).append("{client_id=\"").append(std::to_string(client_id)).append("\"");
        text_.append(more_labels).append("} ").append(std::to_string(value)).append("\n");
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
        if (json.contains("host_late_us"))
            sample.host_late_us = json["host_late_us"].get<std::uint32_t>();
        if (!json.at("stats").is_null()) sample.stats = stats_from(json["stats"]);
        return sample;
    } catch (const Json::exception& error) {
        throw std::runtime_error(error.what());
    }
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
    return text;
}

std::string csv_row(const Sample& sample) {
    std::string text = std::to_string(sample.time_ms);
    text.append(",").append(name_of(sample.presence)).append(",");
    if (sample.host_late_us) text += std::to_string(*sample.host_late_us);
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
    return text;
}

std::string to_prometheus(std::span<const Sample> samples) {
    PrometheusText text;
    text.family("tavistro_up", FieldKind::gauge, "Whether an engine of this client_id is running");
    for (const Sample& sample : samples)
        text.value("tavistro_up", sample.client_id, "", sample.presence == Presence::alive ? 1 : 0);
    text.family(
        "tavistro_blocks_replaced_per_sec", FieldKind::gauge,
        "Blocks queued beyond those received, in the last second: silence for lost ones. The "
        "two are counted in seconds of their own, so judge by averages");
    for (const Sample& sample : samples) {
        if (sample.presence != Presence::alive) continue;
        text.value("tavistro_blocks_replaced_per_sec", sample.client_id, "",
                   std::int64_t{sample.stats->player_recv_blocks_per_sec} -
                       sample.stats->client_recv_blocks_per_sec);
    }
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
    return text.take();
}

}  // namespace tavistro::monitor
