// The server's protocol and mixing logic, without threads and sockets: takes datagrams and the
// time, returns datagrams.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "net/protocol.h"
#include "platform/udp_socket.h"
#include "tools/server/block_schedule.h"
#include "tools/server/client_registry.h"
#include "tools/server/delay_queue.h"
#include "tools/server/mix_bus.h"
#include "tools/server/server_counters.h"
#include "tools/server/server_options.h"
#include "tools/server/skewed_clock.h"
#include "tools/server/sources.h"

namespace tavistro::server {

/// Tracks the clients, answers their requests and mixes blocks for them. Block N of a bus channel
/// is the sum of the channel's sources and of the client input tagged N. Not thread-safe.
class MixingSession {
  public:
    struct Settings {
        StreamFormat format;
        std::uint16_t port = 0;  ///< UDP port told to clients that search for servers
        std::uint32_t udp_payload_bytes = 0;
        std::uint32_t first_sequence = 0;
    };

    /// The first block is due immediately on `clock`.
    MixingSession(const Settings& settings, const SkewedClock& clock, SourceList sources,
                  std::uint64_t local_ns);

    /// Processes a datagram; returns the reply, if any.
    std::optional<TavistroProtocol::Datagram> receive(std::span<const std::uint8_t> bytes,
                                                      const platform::Ipv4Endpoint& from,
                                                      const FaultOptions& faults,
                                                      std::uint64_t local_ns);

    /// Local time at which the next block is due.
    std::uint64_t next_due_ns() const noexcept;
    /// Mixes the next block and appends the clients' datagrams, the sync notice before the audio.
    /// Skips blocks first when more than max_late_blocks are due. Returns the block, or nothing
    /// when none is due.
    std::optional<BlockStamp> mix_due_block(const FaultOptions& faults, std::uint64_t local_ns,
                                            std::vector<RoutedDatagram>& outbox);
    static constexpr std::uint64_t max_late_blocks = 64;

    /// Takes effect with the next block.
    void change_format(const StreamFormat& format);
    /// Changes the server's clock. Block deadlines move with it, so the block spacing shows no
    /// jump.
    void adjust_clock(std::int64_t offset_ms, double drift_ppm, std::uint64_t local_ns);

    const StreamFormat& format() const noexcept { return schedule_.format(); }
    BlockStamp next_block() const noexcept { return schedule_.next(); }
    const MixBus& bus() const noexcept { return bus_; }
    const ClientRegistry& registry() const noexcept { return registry_; }
    const MixCounters& counters() const noexcept { return counters_; }

  private:
    void mix(const BlockStamp& block);
    void send_sync(Client& client, const BlockStamp& block, std::vector<RoutedDatagram>& outbox);
    void send_audio(const Client& client, const BlockStamp& block,
                    std::vector<RoutedDatagram>& outbox);

    std::uint16_t port_;
    std::uint32_t udp_payload_bytes_;
    SkewedClock clock_;
    BlockSchedule schedule_;
    SourceList sources_;
    MixBus bus_;
    ClientRegistry registry_;
    std::vector<float> output_;                 ///< of one client, planar
    TavistroProtocol::DatagramList fragments_;  ///< of output_
    MixCounters counters_;
    std::optional<std::uint64_t> last_heard_frame_;
};

}  // namespace tavistro::server
