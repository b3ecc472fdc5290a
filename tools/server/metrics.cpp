#include "tools/server/metrics.h"

#include <fmt/format.h>

#include <string_view>
#include <utility>

#include "tools/http/metrics_text.h"
#include "tools/version_flag.h"

namespace tavistro::server {

namespace {

struct Counter {
    std::string_view name;
    std::string_view help;
    std::uint64_t ServerSnapshot::*value;
};

constexpr Counter counters[] = {
    {"blocks_mixed_total", "Blocks mixed", &ServerSnapshot::blocks},
    {"blocks_skipped_total", "Blocks not mixed because the process was delayed too long",
     &ServerSnapshot::blocks_skipped},
    {"blocks_sent_total", "Audio blocks sent, each client's counted", &ServerSnapshot::blocks_sent},
    {"datagrams_sent_total", "Datagrams sent", &ServerSnapshot::datagrams_sent},
    {"datagrams_received_total", "Datagrams received", &ServerSnapshot::datagrams_received},
    {"sent_bytes_total", "Payload sent", &ServerSnapshot::bytes_sent},
    {"received_bytes_total", "Payload received", &ServerSnapshot::bytes_received},
    {"send_failures_total", "Datagrams that could not be sent", &ServerSnapshot::send_failures},
    {"malformed_datagrams_total", "Invalid datagrams received", &ServerSnapshot::malformed},
    {"unregistered_datagrams_total", "Audio datagrams of clients that are not registered",
     &ServerSnapshot::strangers},
    {"sessions_total", "Client sessions that began", &ServerSnapshot::sessions},
    {"sessions_replaced_total", "Sessions ended by a new one of the same client",
     &ServerSnapshot::sessions_replaced},
    {"sessions_left_total", "Sessions ended by the client", &ServerSnapshot::sessions_left},
    {"sessions_timed_out_total", "Sessions ended because the client fell silent",
     &ServerSnapshot::sessions_timed_out},
    {"fault_dropped_datagrams_total", "Datagrams dropped by simulated faults",
     &ServerSnapshot::lost_on_purpose},
    {"fault_dropped_blocks_total", "Audio blocks to clients dropped by simulated faults",
     &ServerSnapshot::blocks_lost},
    {"fault_dropped_sync_notices_total", "Sync notices dropped by simulated faults",
     &ServerSnapshot::syncs_lost},
    {"fault_reordered_blocks_total", "Audio blocks to clients reordered by simulated faults",
     &ServerSnapshot::blocks_held_back},
};
constexpr std::pair<std::string_view, std::uint64_t InputCounters::*> input_results[] = {
    {"complete", &InputCounters::complete}, {"incomplete", &InputCounters::incomplete},
    {"missing", &InputCounters::missing},   {"late", &InputCounters::late},
    {"early", &InputCounters::early},
};

}  // namespace

std::string to_prometheus(const ServerSnapshot& snapshot) {
    http::MetricsText text;
    text.build_info("tavistro_server_build_info", version_text);
    const auto gauge = [&](std::string_view name, std::string_view help, double value) {
        text.family(fmt::format("tavistro_server_{}", name), "gauge", help);
        text.value("", value);
    };
    gauge("uptime_seconds", "Time since the start", static_cast<double>(snapshot.uptime_ms) / 1e3);
    gauge("clients", "Clients connected", static_cast<double>(snapshot.clients.size()));
    gauge("stream_sample_rate_hertz", "Sample rate of the stream", snapshot.format.sample_rate);
    gauge("stream_block_frames", "Frames per block of the stream", snapshot.format.frames);
    gauge("longest_lateness_seconds", "Largest delay of a block past its deadline since the start",
          static_cast<double>(snapshot.lateness_max_us) / 1e6);
    for (const auto& counter : counters) {
        text.family(fmt::format("tavistro_server_{}", counter.name), "counter", counter.help);
        text.value("", static_cast<double>(snapshot.*counter.value));
    }
    text.family("tavistro_server_sync_notices_sent_total", "counter",
                "Sync notices sent to a client");
    const auto label_of = [](const ClientSnapshot& client) {
        return fmt::format("client_id=\"{}\"", client.announce.client_id);
    };
    for (const ClientSnapshot& client : snapshot.clients)
        text.value(label_of(client), static_cast<double>(client.sync_blocks_sent));
    text.family("tavistro_server_input_blocks_total", "counter",
                "Blocks of a client's input: mixed with all or with some fragments, missing at "
                "their time, arrived late, or tagged too far ahead");
    for (const ClientSnapshot& client : snapshot.clients)
        for (const auto& [result, count] : input_results)
            text.value(fmt::format("{},result=\"{}\"", label_of(client), result),
                       static_cast<double>(client.input.*count));
    text.family("tavistro_server_round_trip_seconds", "gauge",
                "Round trip of the audio measured last on a pair of bus channels");
    for (const MeasureSnapshot& measure : snapshot.measures) {
        if (!measure.report.last_lag_frames) continue;
        text.value(
            fmt::format("sent=\"{}\",returned=\"{}\"", measure.channels.sent,
                        measure.channels.returned),
            static_cast<double>(*measure.report.last_lag_frames) / snapshot.format.sample_rate);
    }
    return text.text();
}

}  // namespace tavistro::server
