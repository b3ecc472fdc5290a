// The client's estimate of the server clock: measured by ping and pong, and used to convert the
// server's block times to the local clock.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "net/protocol.h"

namespace tavistro {

/// At most one ping is outstanding. Callers pass the times; nothing here reads a clock. Not
/// thread-safe; allocates nothing.
class ServerClock {
  public:
    static constexpr std::uint64_t ping_period_ms = 1000;
    static constexpr std::uint64_t ping_timeout_ms = 3000;

    enum class PingStep {
        wait,             ///< nothing to do yet
        send,             ///< a ping is due
        send_after_loss,  ///< the outstanding ping has just timed out, and another is due
    };
    /// The action due at tick `now_ms`. Drops an outstanding ping that is ping_timeout_ms old.
    PingStep next_ping_step(std::uint64_t now_ms) noexcept;
    void ping_sent(const TavistroProtocol::Ping& ping, std::uint64_t now_ms) noexcept;
    /// Drops the outstanding ping, if any.
    void forget_ping() noexcept { ping_outstanding_ = false; }

    /// Accepts the pong to the outstanding ping, received at `t4_ns`: sets the clock offset and
    /// returns the round trip in nanoseconds, less the server's processing time. Returns nothing
    /// and changes nothing for any other pong.
    std::optional<std::uint64_t> accept(const TavistroProtocol::Pong& pong,
                                        std::uint64_t t4_ns) noexcept;

    bool clock_synced() const noexcept { return clock_synced_; }
    /// Local clock minus server clock.
    std::int64_t clock_offset_ns() const noexcept { return clock_offset_ns_; }

    /// Stores a block's server time and its conversion to the local clock; replaces the entry of 16
    /// blocks before. Precondition: clock_synced().
    void remember_block(std::uint32_t sequence, std::uint64_t server_ns) noexcept;
    /// The time of a block on both clocks.
    struct SyncRingEntry {
        std::uint32_t sequence = 0;
        std::uint64_t server_time_ns = 0;
        std::uint64_t local_time_ns = 0;
        bool valid = false;
    };
    /// All zeros if the block's time is unknown.
    SyncRingEntry block_times(std::uint32_t sequence) const noexcept;

  private:
    bool ping_outstanding_ = false;
    std::uint64_t last_ping_ms_ = 0;  ///< 0 before the first
    std::uint64_t ping_nonce_ = 0;
    std::uint64_t ping_t1_ = 0;
    std::int64_t clock_offset_ns_ = 0;
    bool clock_synced_ = false;
    std::array<SyncRingEntry, 16> sync_ring_{};
};

}  // namespace tavistro
