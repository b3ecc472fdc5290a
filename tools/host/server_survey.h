// Who answers a discover message: every server, not the one that the engine would choose.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/udp_socket.h"
#include "tools/host/commands.h"

namespace tavistro::host {

struct AnsweringServer {
    platform::Ipv4Endpoint endpoint;  ///< where it takes a client's traffic; of a server that does
                                      ///< not speak our protocol, where its answer came from
    int address_class = 0;            ///< as address_class() of net/discovery.h
    std::uint32_t protocol_version = 0;
    bool compatible = false;  ///< the engine would talk to it
    std::uint64_t round_trip_ns = 0;
};

/// One JSON object, without the end of the line.
std::string json_line(const AnsweringServer& server);

/// Takes the datagrams that may answer one discover message. Pure: sockets and time are its user's.
class ServerSurvey {
  public:
    /// Says whether an address is one of this machine.
    using IsOwnAddress = std::function<bool(std::uint32_t address)>;

    ServerSurvey(std::uint32_t client_id, std::uint64_t nonce, IsOwnAddress is_own_address)
        : client_id_(client_id), nonce_(nonce), is_own_address_(std::move(is_own_address)) {}

    /// A server that answers twice counts with its first answer. One on this machine answers from
    /// the loopback address and from others: it is listed once, nearest address first.
    void offer(std::span<const std::uint8_t> datagram, const platform::Ipv4Endpoint& source,
               std::uint64_t round_trip_ns);
    /// The nearest first; equally near ones as they answered.
    std::vector<AnsweringServer> servers() const;

  private:
    std::uint32_t client_id_;
    std::uint64_t nonce_;
    IsOwnAddress is_own_address_;
    std::vector<AnsweringServer> servers_;
};

/// Whom a question goes to.
std::vector<std::uint32_t> asked_addresses(const ServersOptions& options);
struct ServerAnswers {
    std::vector<AnsweringServer> servers;  ///< the nearest first
    std::string asked;                     ///< whom, in words
};
/// Asks as the engine does when it starts, and waits for the whole time-out or until a stop is
/// requested. Nothing when the network cannot be used.
std::optional<ServerAnswers> ask_servers(const ServersOptions& options);

}  // namespace tavistro::host
