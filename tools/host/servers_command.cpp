#include <fmt/format.h>

#include <ostream>
#include <string>
#include <vector>

#include "net/nonce.h"
#include "net/protocol.h"
#include "platform/clock.h"
#include "platform/udp_socket.h"
#include "tools/host/commands.h"
#include "tools/host/json_lines.h"
#include "tools/host/server_survey.h"

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

/// Asks everybody; returns whom, in words.
std::string ask(platform::UdpSocket& socket, const TavistroProtocol::Datagram& question,
                const ServersOptions& options) {
    std::vector<std::uint32_t> addresses = {platform::ipv4_loopback, platform::ipv4_broadcast};
    if (options.address) addresses = {*options.address};
    std::string asked;
    for (const std::uint32_t address : addresses) {
        const platform::Ipv4Endpoint to{address, options.port};
        asked += (asked.empty() ? "" : " and ") + endpoint_text(to);
        if (!socket.send_to(question, to)) asked += " (the system refused to send)";
    }
    return asked;
}

void collect(platform::UdpSocket& socket, std::uint64_t asked_ns, std::uint32_t timeout_ms,
             ServerSurvey& survey) {
    std::vector<std::uint8_t> buffer(platform::max_datagram_bytes);
    const std::uint64_t begin_ms = platform::millisecond_tick();
    while (platform::millisecond_tick() - begin_ms < timeout_ms) {
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

std::string text_line(const AnsweringServer& server) {
    return fmt::format("{:<21}  {:<15}  protocol {}  {:<12}  {:.2f} ms",
                       endpoint_text(server.endpoint), address_class_text(server.address_class),
                       server.protocol_version, server.compatible ? "compatible" : "incompatible",
                       static_cast<double>(server.round_trip_ns) / 1e6);
}

}  // namespace

int list_servers(const ServersOptions& options, bool json, std::ostream& out,
                 std::ostream& errors) {
    const NetworkStack network;
    platform::UdpSocket socket;
    if (!network.started || !socket.open({}) || !socket.set_receive_timeout(receive_slice_ms)) {
        errors << "the network cannot be used: no socket to be had\n";
        return 1;
    }
    socket.enable_broadcast();  // a refusal shows when it is sent
    const std::uint64_t nonce = fresh_nonce(asking_client_id);
    ServerSurvey survey(asking_client_id, nonce, is_own_address);
    const std::uint64_t asked_ns = platform::nanosecond_clock();
    const std::string asked =
        ask(socket, TavistroProtocol::encode_discover({asking_client_id, nonce}), options);
    collect(socket, asked_ns, options.timeout_ms, survey);

    const std::vector<AnsweringServer> servers = survey.servers();
    for (const AnsweringServer& server : servers)
        out << (json ? json_line(server) : text_line(server)) << '\n';
    out.flush();
    if (servers.empty()) {
        errors << "no server answered within " << options.timeout_ms << " ms; asked: " << asked
               << '\n';
    }
    return servers.empty() ? 1 : 0;
}

}  // namespace tavistro::host
