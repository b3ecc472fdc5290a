#include "tools/server/report.h"

#include <fmt/format.h>

#include <algorithm>
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

double lateness_ms(const MixCounters& counters) {
    return static_cast<double>(counters.lateness_max_us) / 1000.0;
}

std::string measure_text(const MeasureSnapshot& measure, const StreamFormat& format) {
    const RoundTripReport& report = measure.report;
    const std::string name =
        fmt::format("channel {} -> {}: ", measure.channels.sent, measure.channels.returned);
    if (!report.last_lag_frames || report.windows == 0) return name + "no returned audio yet";
    const std::size_t lag = *report.last_lag_frames;
    return name + fmt::format(
                      "round trip {:.2f} ms ({:.2f} blocks), correlation {:.4f}\n"
                      "    {} of {} returned blocks bit-exact, {} returned silent",
                      lag_ms(lag, format), lag_blocks(lag, format), report.correlation_median,
                      report.exact_blocks, report.compared_blocks, report.silent_blocks);
}

std::string input_text(const InputCounters& input) {
    return fmt::format(
        "input blocks: {} complete, {} incomplete, {} missing, {} late, {} early; {} silent gaps",
        input.complete, input.incomplete, input.missing, input.late, input.early, input.gaps);
}

/// Empty when no fault had an effect.
std::string faults_text(const TrafficCounters& total) {
    if (total.lost_on_purpose == 0 && total.blocks_held_back == 0) return {};
    return fmt::format(
        "\nsimulated faults: dropped {} datagrams in both directions\n"
        "  to clients: dropped {} audio blocks and {} sync notices, reordered {} audio blocks",
        total.lost_on_purpose, total.blocks_lost, total.syncs_lost, total.blocks_held_back);
}

/// Shortens runs of three or more consecutive channels, as in "0..7, 12, 13".
std::string channels_text(const std::vector<std::int32_t>& channels) {
    std::string text;
    for (auto first = channels.begin(); first != channels.end();) {
        const auto last = std::adjacent_find(
            first, channels.end(), [](std::int64_t a, std::int64_t b) { return b != a + 1; });
        const auto run_end = last == channels.end() ? last : last + 1;
        const bool shortens = run_end - first >= 3;
        text += text.empty() ? "" : ", ";
        text += shortens ? fmt::format("{}..{}", *first, *(run_end - 1)) : std::to_string(*first);
        first = shortens ? run_end : first + 1;
    }
    return text.empty() ? "none" : text;
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

/// On one line. Replaces invalid UTF-8, which paths of recordings may contain.
std::string dump(const json& object) {
    return object.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string client_json(const char* type, const ClientSnapshot& client) {
    json object = to_json(client);
    object["type"] = type;
    return dump(object);
}

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

std::string Report::listening(std::uint16_t port, const ServerOptions& options) const {
    const StreamFormat& format = options.format;
    if (json_) {
        return dump({{"type", "listening"},
                     {"port", port},
                     {"sample_rate", format.sample_rate},
                     {"frames", format.frames}});
    }
    const bool everywhere = options.bind_address == 0;
    const std::string address = platform::format_ipv4(options.bind_address);
    return fmt::format(
        "listening on UDP port {}, {}\n"
        "clients connect with server_ip = {}, server_port = {}\n"
        "stream: {} Hz, {} frames per block ({:.2f} ms), bus channels 0..{}",
        port, everywhere ? "all network interfaces" : "address " + address,
        everywhere ? "auto or an address of this machine" : address, port, format.sample_rate,
        format.frames, format.block_ms(), bus_channel_count - 1);
}

std::string Report::joined(const ClientSnapshot& client) const {
    if (json_) return client_json("joined", client);
    return fmt::format("{} joined: receives bus channels {}; sends bus channels {}",
                       name_of(client), channels_text(client.announce.driver_outputs),
                       channels_text(client.announce.driver_inputs));
}

std::string Report::left(const ClientSnapshot& client) const {
    if (json_) return client_json("left", client);
    return fmt::format("{} left or timed out\n  {}", name_of(client), input_text(client.input));
}

std::string Report::status(const ServerSnapshot& now, const ServerSnapshot& before) const {
    if (json_) return counts_json("status", now);
    const double seconds = static_cast<double>(now.uptime_ms - before.uptime_ms) / 1000.0;
    const auto rate = [seconds](std::uint64_t later, std::uint64_t earlier) {
        return seconds > 0 ? static_cast<double>(later - earlier) / seconds : 0.0;
    };
    std::string text = fmt::format(
        "{:>4.0f} s: {} client{}; sent {:.1f} kB/s, received {:.1f} kB/s\n  {}",
        static_cast<double>(now.uptime_ms) / 1000.0, now.clients.size(),
        now.clients.size() == 1 ? "" : "s", rate(now.bytes_sent, before.bytes_sent) / 1000,
        rate(now.bytes_received, before.bytes_received) / 1000, input_text(now.input));
    if (now.blocks_skipped != 0) {
        text += fmt::format("\n  server overloaded: skipped {} blocks, up to {:.2f} ms late",
                            now.blocks_skipped, lateness_ms(now));
    }
    for (const MeasureSnapshot& measure : now.measures)
        text += fmt::format("\n  {}", measure_text(measure, now.format));
    if (!now.recording_error.empty()) text += fmt::format("\n  {}", now.recording_error);
    return text;
}

std::string Report::summary(const ServerSnapshot& total) const {
    if (json_) return counts_json("summary", total);
    std::string text = fmt::format(
        "ran for {:.1f} s: mixed {} blocks, skipped {}, up to {:.2f} ms late\n"
        "client sessions: {} in total, {} replaced by a newer one, {} left, {} timed out\n"
        "sent {} datagrams ({:.1f} MB), received {} datagrams ({:.1f} MB)\n{}{}",
        static_cast<double>(total.uptime_ms) / 1000.0, total.blocks, total.blocks_skipped,
        lateness_ms(total), total.sessions, total.sessions_replaced, total.sessions_left,
        total.sessions_timed_out, total.datagrams_sent,
        static_cast<double>(total.bytes_sent) * 1e-6, total.datagrams_received,
        static_cast<double>(total.bytes_received) * 1e-6, input_text(total.input),
        faults_text(total));
    for (const ClientSnapshot& client : total.clients) {
        text +=
            fmt::format("\n{} still connected\n  {}", name_of(client), input_text(client.input));
    }
    for (const MeasureSnapshot& measure : total.measures)
        text += fmt::format("\n{}", measure_text(measure, total.format));
    if (!total.recording_error.empty()) text += fmt::format("\n{}", total.recording_error);
    return text;
}

}  // namespace tavistro::server
