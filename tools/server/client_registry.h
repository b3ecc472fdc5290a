// The connected clients: their endpoints, their channels and the input that they sent.
#pragma once

#include <cstdint>
#include <list>

#include "net/protocol.h"
#include "platform/udp_socket.h"
#include "tools/server/input_ring.h"
#include "tools/server/server_options.h"

namespace tavistro::server {

/// One session of one client.
struct Client {
    Client(const platform::Ipv4Endpoint& from, TavistroProtocol::Announce latest,
           const StreamFormat& format)
        : endpoint(from),
          announce(std::move(latest)),
          input(format, announce.driver_inputs.size()) {}

    platform::Ipv4Endpoint endpoint;
    TavistroProtocol::Announce announce;  ///< the latest
    std::uint64_t announced_ms = 0;       ///< time of its arrival
    std::uint64_t sync_blocks_sent = 0;
    InputRing input;
};

/// Identifies clients by host address and client id; a second client with the same id on the same
/// host replaces the first. Not thread-safe.
class ClientRegistry {
  public:
    /// A client is removed when it sends no announce for this long.
    static constexpr std::uint64_t timeout_ms = 5000;
    /// Longer channel lists are rejected as invalid.
    static constexpr std::size_t max_list_entries = 2 * bus_channel_count;

    /// Adds the client, renews it, replaces it (new session, port or channels) or, when the
    /// announce is a leave of its current session, removes it. False for channel lists that are too
    /// long and for session id 0.
    bool announce(const platform::Ipv4Endpoint& from, const TavistroProtocol::Announce& announce,
                  const StreamFormat& format, std::uint64_t now_ms);
    void drop_silent(std::uint64_t now_ms);
    /// Empties the input rings and switches them to the new format.
    void change_format(const StreamFormat& format);

    /// The client with this endpoint and id; null when there is none.
    Client* find(const platform::Ipv4Endpoint& endpoint, std::uint32_t client_id);
    std::list<Client>& clients() noexcept { return clients_; }
    const std::list<Client>& clients() const noexcept { return clients_; }
    const SessionCounters& counters() const noexcept { return counters_; }
    /// Sum over all sessions, including ended ones.
    InputCounters input_counters() const;

  private:
    std::list<Client>::iterator remove(std::list<Client>::iterator client);

    std::list<Client> clients_;
    SessionCounters counters_;
    InputCounters gone_input_;  ///< sum over the ended sessions
};

}  // namespace tavistro::server
