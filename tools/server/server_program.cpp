#include "tools/server/server_program.h"

#include <algorithm>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "platform/clock.h"
#include "tools/http/http_server.h"
#include "tools/http/metrics_text.h"
#include "tools/server/command_line.h"
#include "tools/server/metrics.h"
#include "tools/server/reference_server.h"
#include "tools/server/report.h"
#include "tools/stop_request.h"

namespace tavistro::server {

namespace {

constexpr std::uint32_t poll_period_ms = 50;

bool has(const std::vector<ClientSnapshot>& clients, const ClientSnapshot& wanted) {
    return std::ranges::any_of(clients, [&](const ClientSnapshot& client) {
        return client.endpoint == wanted.endpoint &&
               client.announce.session_id == wanted.announce.session_id;
    });
}

/// Prints clients as they join and leave and a status now and then, until the time is over or a
/// signal arrives.
void serve(const ReferenceServer& server, const CommandLine& command, const Report& report,
           std::ostream& out) {
    const std::uint64_t started_ms = platform::millisecond_tick();
    const std::uint64_t length_ms = std::uint64_t{command.seconds} * 1000;
    const std::uint64_t status_period_ms = std::uint64_t{command.status_s} * 1000;
    std::uint64_t next_status_ms = started_ms + status_period_ms;
    ServerSnapshot previous;
    std::vector<ClientSnapshot> known;
    while (!stop_requested) {
        const std::uint64_t now_ms = platform::millisecond_tick();
        if (length_ms != 0 && now_ms - started_ms >= length_ms) return;
        ServerSnapshot now = server.snapshot();
        for (const ClientSnapshot& client : known)
            if (!has(now.clients, client)) out << report.left(client) << std::endl;
        for (const ClientSnapshot& client : now.clients)
            if (!has(known, client)) out << report.joined(client) << std::endl;
        known = now.clients;
        if (status_period_ms != 0 && now_ms >= next_status_ms) {
            next_status_ms += status_period_ms;
            out << report.status(now, previous) << std::endl;
            previous = std::move(now);
        }
        platform::sleep_ms(poll_period_ms);
    }
}

}  // namespace

int run_server_program(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
    const ParsedArguments arguments = parse_arguments(argc, argv);
    if (!arguments.command) {
        (arguments.exit_code == 0 ? out : err) << arguments.message;
        return arguments.exit_code;
    }
    const CommandLine& command = *arguments.command;
    ReferenceServer server(command.options);
    if (const std::string error = server.start(); !error.empty()) {
        err << "tavistro-server: " << error << "\n";
        return 1;
    }
    std::optional<http::HttpServer> metrics;
    if (!command.metrics_address.empty()) {
        try {
            metrics.emplace(command.metrics_address, [&](std::string_view target) {
                return target == "/metrics"
                           ? std::optional(http::HttpPage{http::metrics_content_type,
                                                          to_prometheus(server.snapshot())})
                           : std::nullopt;
            });
        } catch (const std::runtime_error& error) {
            err << "tavistro-server: --metrics: " << error.what() << "\n";
            return 1;
        }
        err << metrics->url() << "metrics" << std::endl;
    }
    take_stop_signals();  // not before: loading an audio file takes its time
    const Report report(command.json);
    out << report.listening(server.port(), command.options) << std::endl;
    serve(server, command, report, out);
    server.stop();
    const ServerSnapshot total = server.snapshot();
    out << report.summary(total) << std::endl;
    return total.recording_error.empty() ? 0 : 1;
}

}  // namespace tavistro::server
