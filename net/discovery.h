// Finds the server before a session starts, and makes sure that it speaks our protocol.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "config/settings.h"
#include "net/client_error.h"
#include "platform/udp_socket.h"

namespace tavistro {

/// How near an address is: 0 this host, 1 a private or link-local network, 2 elsewhere.
int address_class(std::uint32_t address) noexcept;

/// Judges the datagrams that may answer one discover message, and keeps the best-placed server.
/// Pure: sockets and time are its user's.
class ServerChoice {
  public:
    ServerChoice(std::uint32_t client_id, std::uint64_t nonce) noexcept
        : client_id_(client_id), nonce_(nonce) {}

    enum class Verdict {
        ignored,       ///< not an answer to our question
        accepted,      ///< a compatible server, which is best() unless a nearer one answered before
        incompatible,  ///< a server that we cannot talk to
    };
    Verdict offer(std::span<const std::uint8_t> datagram, const platform::Ipv4Endpoint& source);
    /// The nearest server so far, at the port that it asks for; the earliest of equally near ones.
    const std::optional<platform::Ipv4Endpoint>& best() const noexcept { return best_; }

  private:
    std::uint32_t client_id_;
    std::uint64_t nonce_;
    std::optional<platform::Ipv4Endpoint> best_;
};

struct FoundServer {
    std::optional<platform::Ipv4Endpoint> server;  ///< none: it failed
    ClientError error = ClientError::None;         ///< why; may stay None when it failed
};

/// Finds the server that `settings.server_ip` names ("auto" in any letter case: whoever answers
/// best on this host and, by broadcast, on the network; else an address that must answer a
/// probe). Waits up to settings.discovery_timeout_ms; the socket has no receive timeout afterwards
/// when it succeeds. `log` may be empty.
FoundServer find_server(platform::UdpSocket& socket,
                        const TavistroProtocol::ClientSettings& settings,
                        const std::function<void(const std::string&)>& log);

}  // namespace tavistro
