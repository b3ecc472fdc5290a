// The clients that a server knows: who they are, what they feed and receive, what they sent.
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
    std::uint64_t announced_ms = 0;       ///< when it came
    std::uint64_t sync_blocks_sent = 0;
    InputRing input;
};

/// Clients by host address and client id: two of one id on one host replace each other. Not
/// thread-safe.
class ClientRegistry {
  public:
    /// A client that has not announced itself for this long is gone.
    static constexpr std::uint64_t timeout_ms = 5000;
    /// Longer channel lists than twice the bus are nonsense.
    static constexpr std::size_t max_list_entries = 2 * bus_channel_count;

    /// Registers, renews, replaces (another session or port) or, for the leave form of the present
    /// session, removes. Lists too long are refused: false.
    bool announce(const platform::Ipv4Endpoint& from, const TavistroProtocol::Announce& announce,
                  const StreamFormat& format, std::uint64_t now_ms);
    void drop_silent(std::uint64_t now_ms);
    /// Empty rings for another format.
    void change_format(const StreamFormat& format);

    /// The client that speaks from this socket, null when it is not known.
    Client* find(const platform::Ipv4Endpoint& endpoint, std::uint32_t client_id);
    std::list<Client>& clients() noexcept { return clients_; }
    const std::list<Client>& clients() const noexcept { return clients_; }
    const SessionCounters& counters() const noexcept { return counters_; }
    /// Of all sessions, also those that ended.
    InputCounters input_counters() const;

  private:
    std::list<Client>::iterator remove(std::list<Client>::iterator client);

    std::list<Client> clients_;
    SessionCounters counters_;
    InputCounters gone_input_;  ///< of the sessions that ended
};

}  // namespace tavistro::server
