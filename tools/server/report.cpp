#include "tools/server/report.h"

#include <cstdio>
#include <nlohmann/json.hpp>

namespace tavistro::server {

using nlohmann::json;

namespace {

double lag_ms(std::size_t frames, const StreamFormat& format) {
    return 1000.0 * static_cast<double>(frames) / format.sample_rate;
}

double lag_blocks(std::size_t frames, const StreamFormat& format) {
    return static_cast<double>(frames) / format.frames;
}

template <typename... Values>
std::string format_text(const char* format, Values... values) {
    char text[256];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

std::string measure_text(const MeasureSnapshot& measure, const StreamFormat& format) {
    const RoundTripReport& report = measure.report;
    const std::string name =
        format_text("%u:%u ", measure.channels.sent, measure.channels.returned);
    if (!report.last_lag_frames) return name + "nothing came back";
    const std::size_t lag = *report.last_lag_frames;
    return name + format_text(
                      "lag %zu frames (%.2f blocks, %.2f ms) corr %.4f exact %llu/%llu silent %llu",
                      lag, lag_blocks(lag, format), lag_ms(lag, format), report.correlation_median,
                      static_cast<unsigned long long>(report.exact_blocks),
                      static_cast<unsigned long long>(report.compared_blocks),
                      static_cast<unsigned long long>(report.silent_blocks));
}

std::string input_text(const InputCounters& input) {
    return format_text(
        "in %llu incomplete %llu missing %llu late %llu early %llu gaps %llu",
        static_cast<unsigned long long>(input.complete),
        static_cast<unsigned long long>(input.incomplete),
        static_cast<unsigned long long>(input.missing), static_cast<unsigned long long>(input.late),
        static_cast<unsigned long long>(input.early), static_cast<unsigned long long>(input.gaps));
}

/// What the faults cost; empty when they cost nothing.
std::string losses_text(const ServerSnapshot& total) {
    if (total.lost_on_purpose == 0 && total.blocks_held_back == 0) return {};
    return format_text(
        "lost on purpose: %llu datagrams, %llu blocks and %llu Syncs to clients among them; %llu "
        "blocks held back\n",
        static_cast<unsigned long long>(total.lost_on_purpose),
        static_cast<unsigned long long>(total.blocks_lost),
        static_cast<unsigned long long>(total.syncs_lost),
        static_cast<unsigned long long>(total.blocks_held_back));
}

json to_json(const InputCounters& input) {
    return {{"complete", input.complete},     {"incomplete", input.incomplete},
            {"missing", input.missing},       {"late", input.late},
            {"early", input.early},           {"mismatched", input.mismatched},
            {"duplicates", input.duplicates}, {"gaps", input.gaps}};
}

json to_json(const ClientSnapshot& client) {
    return {{"address", platform::format_ipv4(client.endpoint.address)},
            {"port", client.endpoint.port},
            {"client_id", client.client_id},
            {"session_id", client.session_id},
            {"driver_inputs", client.driver_inputs},
            {"driver_outputs", client.driver_outputs},
            {"sync_blocks_sent", client.sync_blocks_sent},
            {"input", to_json(client.input)}};
}

json to_json(const MeasureSnapshot& measure, const StreamFormat& format) {
    const RoundTripReport& report = measure.report;
    json object{{"sent", measure.channels.sent},
                {"returned", measure.channels.returned},
                {"windows", report.windows},
                {"correlation_min", report.correlation_min},
                {"correlation_median", report.correlation_median},
                {"correlation_max", report.correlation_max},
                {"exact_blocks", report.exact_blocks},
                {"compared_blocks", report.compared_blocks},
                {"silent_blocks", report.silent_blocks},
                {"lag_frames", nullptr}};
    if (report.last_lag_frames) {
        object["lag_frames"] = *report.last_lag_frames;
        object["lag_blocks"] = lag_blocks(*report.last_lag_frames, format);
        object["lag_ms"] = lag_ms(*report.last_lag_frames, format);
    }
    return object;
}

}  // namespace

std::string status_line(const ServerSnapshot& now, const ServerSnapshot& before) {
    std::string line = format_text(
        "clients %zu blocks %llu skipped %llu late by %llu us sent %.1f kB received %.1f kB ",
        now.clients.size(), static_cast<unsigned long long>(now.blocks - before.blocks),
        static_cast<unsigned long long>(now.blocks_skipped - before.blocks_skipped),
        static_cast<unsigned long long>(now.lateness_max_us),
        static_cast<double>(now.bytes_sent - before.bytes_sent) / 1000.0,
        static_cast<double>(now.bytes_received - before.bytes_received) / 1000.0);
    line += input_text(now.input);
    for (const MeasureSnapshot& measure : now.measures) {
        line += " | " + measure_text(measure, now.format);
    }
    if (!now.recording_error.empty()) line += " | " + now.recording_error;
    return line;
}

std::string summary_text(const ServerSnapshot& total) {
    std::string text = format_text(
        "ran %.1f s: blocks %llu skipped %llu, sessions %llu replaced %llu left %llu timed out "
        "%llu, ",
        static_cast<double>(total.uptime_ms) / 1000.0,
        static_cast<unsigned long long>(total.blocks),
        static_cast<unsigned long long>(total.blocks_skipped),
        static_cast<unsigned long long>(total.sessions),
        static_cast<unsigned long long>(total.sessions_replaced),
        static_cast<unsigned long long>(total.sessions_left),
        static_cast<unsigned long long>(total.sessions_timed_out));
    text += input_text(total.input) + "\n" + losses_text(total);
    for (const ClientSnapshot& client : total.clients) {
        text += format_text("client %u at %s:%u: ", client.client_id,
                            platform::format_ipv4(client.endpoint.address).c_str(),
                            static_cast<unsigned>(client.endpoint.port)) +
                input_text(client.input) + "\n";
    }
    for (const MeasureSnapshot& measure : total.measures) {
        text += "measure " + measure_text(measure, total.format) + "\n";
    }
    if (!total.recording_error.empty()) text += total.recording_error + "\n";
    return text;
}

std::string listening_json(std::uint16_t port, const StreamFormat& format) {
    return json{{"type", "listening"},
                {"port", port},
                {"sample_rate", format.sample_rate},
                {"frames", format.frames}}
        .dump();
}

std::string snapshot_json(const char* type, const ServerSnapshot& snapshot) {
    json object{{"type", type},
                {"uptime_ms", snapshot.uptime_ms},
                {"sample_rate", snapshot.format.sample_rate},
                {"frames", snapshot.format.frames},
                {"next_sequence", snapshot.next_sequence},
                {"blocks", snapshot.blocks},
                {"blocks_skipped", snapshot.blocks_skipped},
                {"lateness_max_us", snapshot.lateness_max_us},
                {"datagrams_sent", snapshot.datagrams_sent},
                {"datagrams_received", snapshot.datagrams_received},
                {"bytes_sent", snapshot.bytes_sent},
                {"bytes_received", snapshot.bytes_received},
                {"send_failures", snapshot.send_failures},
                {"lost_on_purpose", snapshot.lost_on_purpose},
                {"blocks_sent", snapshot.blocks_sent},
                {"blocks_lost", snapshot.blocks_lost},
                {"blocks_held_back", snapshot.blocks_held_back},
                {"syncs_lost", snapshot.syncs_lost},
                {"malformed", snapshot.malformed},
                {"strangers", snapshot.strangers},
                {"sessions", snapshot.sessions},
                {"sessions_replaced", snapshot.sessions_replaced},
                {"sessions_left", snapshot.sessions_left},
                {"sessions_timed_out", snapshot.sessions_timed_out},
                {"input", to_json(snapshot.input)},
                {"longest_silence_ms", snapshot.longest_silence_ms},
                {"unobserved_blocks", snapshot.unobserved_blocks},
                {"recording_error", snapshot.recording_error},
                {"clients", json::array()},
                {"measures", json::array()}};
    for (const ClientSnapshot& client : snapshot.clients) {
        object["clients"].push_back(to_json(client));
    }
    for (const MeasureSnapshot& measure : snapshot.measures) {
        object["measures"].push_back(to_json(measure, snapshot.format));
    }
    // Paths of recordings may hold bytes that are no UTF-8.
    return object.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace tavistro::server
