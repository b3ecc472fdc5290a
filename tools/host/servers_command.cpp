#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "net/discovery.h"
#include "net/nonce.h"
#include "net/protocol.h"
#include "platform/clock.h"
#include "platform/udp_socket.h"
#include "tools/host/commands.h"
#include "tools/host/server_survey.h"
#include "tools/readings/fields_json.h"
#include "tools/stop_request.h"

namespace tavistro::host {

namespace {

constexpr std::uint32_t receive_slice_ms = 20;
constexpr std::uint32_t receive_error_pause_ms = 10;

/// Clients are told apart by address as well: any number will do for one that only asks.
constexpr std::uint32_t asking_client_id = 1;

struct NetworkStack {
    const bool started = platform::start_network_stack();
    ~NetworkStack() {
        if (started) platform::stop_network_stack();
    }
};

/// Only an address of this machine can be bound.
bool is_own_address(std::uint32_t address) {
    platform::UdpSocket socket;
    return socket.open({.bind = {address, 0}});
}

std::string endpoint_text(const platform::Ipv4Endpoint& endpoint) {
    return fmt::format("{}:{}", platform::format_ipv4(endpoint.address), endpoint.port);
}

void collect(platform::UdpSocket& socket, std::uint64_t asked_ns, std::uint32_t timeout_ms,
             ServerSurvey& survey) {
    std::vector<std::uint8_t> buffer(platform::max_datagram_bytes);
    const std::uint64_t begin_ms = platform::millisecond_tick();
    while (!stop_requested && platform::millisecond_tick() - begin_ms < timeout_ms) {
        const platform::ReceiveResult received = socket.receive(buffer);
        const std::uint64_t now_ns = platform::nanosecond_clock();
        if (received.status == platform::ReceiveStatus::datagram) {
            survey.offer(std::span(buffer).first(received.size), received.source,
                         now_ns - asked_ns);
        } else if (received.status == platform::ReceiveStatus::failed) {
            platform::sleep_ms(receive_error_pause_ms);  // mostly: nobody at that port
        }
    }
}

std::string_view address_class_text(int address_class) {
    constexpr std::string_view texts[] = {"this host", "private network", "elsewhere"};
    return texts[address_class];
}

std::string text_line(const AnsweringServer& server) {
    return fmt::format("{:<21}  {:<15}  protocol {}  {:<12}  {:.2f} ms",
                       endpoint_text(server.endpoint), address_class_text(server.address_class),
                       server.protocol_version, server.compatible ? "compatible" : "incompatible",
                       static_cast<double>(server.round_trip_ns) / 1e6);
}

}  // namespace

std::string json_line(const AnsweringServer& server) {
    return readings::Json{{"type", "server"},
                          {"address", platform::format_ipv4(server.endpoint.address)},
                          {"port", server.endpoint.port},
                          {"address_class", server.address_class},
                          {"address_class_text", address_class_text(server.address_class)},
                          {"protocol_version", server.protocol_version},
                          {"compatible", server.compatible},
                          {"rtt_us", server.round_trip_ns / 1000}}
        .dump();
}

void ServerSurvey::offer(std::span<const std::uint8_t> datagram,
                         const platform::Ipv4Endpoint& source, std::uint64_t round_trip_ns) {
    ServerChoice judge(client_id_, nonce_);
    const ServerChoice::Verdict verdict = judge.offer(datagram, source);
    if (verdict == ServerChoice::Verdict::ignored) return;

    AnsweringServer server{.endpoint = source,
                           .address_class = address_class(source.address),
                           .protocol_version = TavistroProtocol::stated_version(datagram),
                           .compatible = verdict == ServerChoice::Verdict::accepted,
                           .round_trip_ns = round_trip_ns};
    if (const auto reply = TavistroProtocol::decode_discover_reply(datagram)) {
        server.endpoint.port = reply.message.port;
        server.protocol_version = reply.message.version;
    }
    const auto is_same = [&](const AnsweringServer& known) {
        return known.endpoint.port == server.endpoint.port &&
               (known.endpoint.address == server.endpoint.address ||
                (is_own_address_(known.endpoint.address) &&
                 is_own_address_(server.endpoint.address)));
    };
    const auto known = std::ranges::find_if(servers_, is_same);
    if (known == servers_.end()) {
        servers_.push_back(server);
    } else if (server.address_class < known->address_class) {
        *known = server;
    }
}

std::vector<AnsweringServer> ServerSurvey::servers() const {
    std::vector<AnsweringServer> sorted = servers_;
    std::ranges::stable_sort(sorted, {}, &AnsweringServer::address_class);
    return sorted;
}

std::vector<std::uint32_t> asked_addresses(const ServersOptions& options) {
    if (options.address) return {*options.address};
    if (!options.broadcast) return {platform::ipv4_loopback};
    return {platform::ipv4_loopback, platform::ipv4_broadcast};
}

std::optional<ServerAnswers> ask_servers(const ServersOptions& options) {
    const NetworkStack network;
    platform::UdpSocket socket;
    if (!network.started || !socket.open({}) || !socket.set_receive_timeout(receive_slice_ms))
        return {};
    socket.enable_broadcast();  // a refusal shows when it is sent
    const std::uint64_t nonce = fresh_nonce(asking_client_id);
    const auto question = TavistroProtocol::encode_discover({asking_client_id, nonce});
    ServerSurvey survey(asking_client_id, nonce, is_own_address);
    const std::uint64_t asked_ns = platform::nanosecond_clock();
    std::string asked;
    for (const std::uint32_t address : asked_addresses(options)) {
        const platform::Ipv4Endpoint to{address, options.port};
        asked += (asked.empty() ? "" : " and ") + endpoint_text(to);
        if (!socket.send_to(question, to)) asked += " (the system refused to send)";
    }
    collect(socket, asked_ns, options.timeout_ms, survey);
    return ServerAnswers{survey.servers(), asked};
}

int list_servers(const ServersOptions& options, bool json, std::ostream& out,
                 std::ostream& errors) {
    take_stop_signals();
    const auto answers = ask_servers(options);
    if (!answers) {
        errors << "the network cannot be used: the system gives no socket\n";
        return 1;
    }
    for (const AnsweringServer& server : answers->servers)
        out << (json ? json_line(server) : text_line(server)) << '\n';
    out.flush();
    if (!answers->servers.empty()) return 0;
    errors << "no server answered "
           << (stop_requested ? "so far" : fmt::format("within {} ms", options.timeout_ms))
           << "; asked: " << answers->asked << '\n';
    return 1;
}

}  // namespace tavistro::host
