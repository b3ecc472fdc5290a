#include "tools/server/report.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

using nlohmann::json;

namespace tavistro::server {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(TrafficCounters, datagrams_sent, datagrams_received, bytes_sent,
                                   bytes_received, send_failures, lost_on_purpose, blocks_lost,
                                   blocks_held_back, syncs_lost)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(MixCounters, blocks_skipped, lateness_max_us, blocks_sent,
                                   malformed, strangers, longest_silence_ms)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(SessionCounters, sessions, sessions_replaced, sessions_left,
                                   sessions_timed_out)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(InputCounters, complete, incomplete, missing, late, early,
                                   mismatched, duplicates, gaps)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(RoundTripReport, windows, correlation_min, correlation_median,
                                   correlation_max, exact_blocks, compared_blocks, silent_blocks)

namespace {

double lag_ms(std::size_t frames, const StreamFormat& format) {
    return 1000.0 * static_cast<double>(frames) / format.sample_rate;
}

double lag_blocks(std::size_t frames, const StreamFormat& format) {
    return static_cast<double>(frames) / format.frames;
}

std::string measure_text(const MeasureSnapshot& measure, const StreamFormat& format) {
    const RoundTripReport& report = measure.report;
    const std::string name =
        fmt::format("{}:{} ", measure.channels.sent, measure.channels.returned);
    if (!report.last_lag_frames) return name + "nothing came back";
    const std::size_t lag = *report.last_lag_frames;
    return name + fmt::format(
                      "lag {} frames ({:.2f} blocks, {:.2f} ms) corr {:.4f} exact {}/{} "
                      "silent {}",
                      lag, lag_blocks(lag, format), lag_ms(lag, format), report.correlation_median,
                      report.exact_blocks, report.compared_blocks, report.silent_blocks);
}

std::string input_text(const InputCounters& input) {
    return fmt::format("in {} incomplete {} missing {} late {} early {} gaps {}", input.complete,
                       input.incomplete, input.missing, input.late, input.early, input.gaps);
}

/// What the faults cost; empty when they cost nothing.
std::string losses_text(const TrafficCounters& total) {
    if (total.lost_on_purpose == 0 && total.blocks_held_back == 0) return {};
    return fmt::format(
        "\nlost on purpose: {} datagrams, {} blocks and {} Syncs to clients among "
        "them; {} blocks held back",
        total.lost_on_purpose, total.blocks_lost, total.syncs_lost, total.blocks_held_back);
}

std::string name_of(const ClientSnapshot& client) {
    return fmt::format("client {} at {}:{}", client.announce.client_id,
                       platform::format_ipv4(client.endpoint.address), client.endpoint.port);
}

json to_json(const ClientSnapshot& client) {
    return {{"address", platform::format_ipv4(client.endpoint.address)},
            {"port", client.endpoint.port},
            {"client_id", client.announce.client_id},
            {"session_id", client.announce.session_id},
            {"driver_inputs", client.announce.driver_inputs},
            {"driver_outputs", client.announce.driver_outputs},
            {"sync_blocks_sent", client.sync_blocks_sent},
            {"input", client.input}};
}

json to_json(const MeasureSnapshot& measure, const StreamFormat& format) {
    const RoundTripReport& report = measure.report;
    json object = report;
    object["sent"] = measure.channels.sent;
    object["returned"] = measure.channels.returned;
    object["lag_frames"] = nullptr;
    if (report.last_lag_frames) {
        object["lag_frames"] = *report.last_lag_frames;
        object["lag_blocks"] = lag_blocks(*report.last_lag_frames, format);
        object["lag_ms"] = lag_ms(*report.last_lag_frames, format);
    }
    return object;
}

/// On one line. Paths of recordings may hold bytes that are no UTF-8.
std::string dump(const json& object) {
    return object.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string client_json(const char* type, const ClientSnapshot& client) {
    json object = to_json(client);
    object["type"] = type;
    return dump(object);
}

/// Everything that was counted.
std::string counts_json(const char* type, const ServerSnapshot& snapshot) {
    json object{{"type", type},
                {"uptime_ms", snapshot.uptime_ms},
                {"sample_rate", snapshot.format.sample_rate},
                {"frames", snapshot.format.frames},
                {"next_sequence", snapshot.next_sequence},
                {"blocks", snapshot.blocks},
                {"input", snapshot.input},
                {"unobserved_blocks", snapshot.unobserved_blocks},
                {"recording_error", snapshot.recording_error},
                {"clients", json::array()},
                {"measures", json::array()}};
    object.update(static_cast<const TrafficCounters&>(snapshot));
    object.update(static_cast<const MixCounters&>(snapshot));
    object.update(static_cast<const SessionCounters&>(snapshot));
    for (const ClientSnapshot& client : snapshot.clients)
        object["clients"].push_back(to_json(client));
    for (const MeasureSnapshot& measure : snapshot.measures)
        object["measures"].push_back(to_json(measure, snapshot.format));
    return dump(object);
}

}  // namespace

std::string Report::listening(std::uint16_t port, const StreamFormat& format) const {
    if (json_) {
        return dump({{"type", "listening"},
                     {"port", port},
                     {"sample_rate", format.sample_rate},
                     {"frames", format.frames}});
    }
    return fmt::format("listening on UDP port {}, {} Hz, {} frames", port, format.sample_rate,
                       format.frames);
}

std::string Report::joined(const ClientSnapshot& client) const {
    if (json_) return client_json("joined", client);
    return fmt::format("{} joined: sends {} channels, receives {}", name_of(client),
                       client.announce.driver_inputs.size(), client.announce.driver_outputs.size());
}

std::string Report::left(const ClientSnapshot& client) const {
    if (json_) return client_json("left", client);
    return fmt::format("{} left: {}", name_of(client), input_text(client.input));
}

std::string Report::status(const ServerSnapshot& now, const ServerSnapshot& before) const {
    if (json_) return counts_json("status", now);
    const double seconds = static_cast<double>(now.uptime_ms - before.uptime_ms) / 1000.0;
    const auto rate = [seconds](std::uint64_t later, std::uint64_t earlier) {
        return seconds > 0 ? static_cast<double>(later - earlier) / seconds : 0.0;
    };
    std::string line = fmt::format(
        "clients {} | per second: blocks {:.0f} sent {:.1f} kB received {:.1f} kB in {:.0f} | in "
        "all: skipped {} late by {} us {}",
        now.clients.size(), rate(now.blocks, before.blocks),
        rate(now.bytes_sent, before.bytes_sent) / 1000,
        rate(now.bytes_received, before.bytes_received) / 1000,
        rate(now.input.complete, before.input.complete), now.blocks_skipped, now.lateness_max_us,
        input_text(now.input));
    for (const MeasureSnapshot& measure : now.measures)
        line += fmt::format(" | {}", measure_text(measure, now.format));
    if (!now.recording_error.empty()) line += fmt::format(" | {}", now.recording_error);
    return line;
}

std::string Report::summary(const ServerSnapshot& total) const {
    if (json_) return counts_json("summary", total);
    std::string text = fmt::format(
        "ran {:.1f} s: blocks {} skipped {}, sessions {} replaced {} left {} timed out {}, {}{}",
        static_cast<double>(total.uptime_ms) / 1000.0, total.blocks, total.blocks_skipped,
        total.sessions, total.sessions_replaced, total.sessions_left, total.sessions_timed_out,
        input_text(total.input), losses_text(total));
    for (const ClientSnapshot& client : total.clients)
        text += fmt::format("\n{}: {}", name_of(client), input_text(client.input));
    for (const MeasureSnapshot& measure : total.measures)
        text += fmt::format("\nmeasure {}", measure_text(measure, total.format));
    if (!total.recording_error.empty()) text += fmt::format("\n{}", total.recording_error);
    return text;
}

}  // namespace tavistro::server
