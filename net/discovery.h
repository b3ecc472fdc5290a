// Finds the server before a session starts, and checks its protocol version.
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

/// Distance of an address: 0 this host, 1 a private or link-local network, 2 any other.
int address_class(std::uint32_t address) noexcept;

/// Evaluates the replies to one discover message and selects the nearest server. Uses neither
/// sockets nor clocks.
class ServerChoice {
  public:
    ServerChoice(std::uint32_t client_id, std::uint64_t nonce) noexcept
        : client_id_(client_id), nonce_(nonce) {}

    enum class Verdict {
        ignored,       ///< not a reply to this discover message
        accepted,      ///< a compatible server; best() unless one at least as near replied earlier
        incompatible,  ///< a server with a different protocol version or capability word
    };
    Verdict offer(std::span<const std::uint8_t> datagram, const platform::Ipv4Endpoint& source);
    /// The nearest server so far, with the port from its reply; the first of equally near ones.
    const std::optional<platform::Ipv4Endpoint>& best() const noexcept { return best_; }

  private:
    std::uint32_t client_id_;
    std::uint64_t nonce_;
    std::optional<platform::Ipv4Endpoint> best_;
};

struct FoundServer {
    std::optional<platform::Ipv4Endpoint> server;  ///< none: discovery failed
    ClientError error = ClientError::None;         ///< the reason; may be None after a failure
};

/// Finds the server that `settings.server_ip` selects. "auto", in any letter case: the nearest
/// server that replies on this host or, by broadcast, on the network. An address: the server there,
/// which must answer a probe. Waits up to settings.discovery_timeout_ms. On success the socket has
/// no receive timeout afterwards. `log` may be empty.
FoundServer find_server(platform::UdpSocket& socket,
                        const TavistroProtocol::ClientSettings& settings,
                        const std::function<void(const std::string&)>& log);

}  // namespace tavistro
