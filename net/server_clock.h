// What the client knows of the server's clock: asked by ping, learnt from pong, applied to the
// block times that the server states.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "net/protocol.h"

namespace tavistro {

/// At most one ping is under way. Times are handed in; nothing here reads a clock. Not thread-safe;
/// allocates nothing.
class ServerClock {
  public:
    static constexpr std::uint64_t ping_period_ms = 1000;
    static constexpr std::uint64_t ping_timeout_ms = 3000;

    enum class PingStep {
        wait,             ///< nothing to do yet
        send,             ///< a ping is due
        send_after_loss,  ///< the last one was given up just now, and another is due
    };
    /// What to do at tick `now_ms`. Gives up a ping that is ping_timeout_ms old.
    PingStep next_ping_step(std::uint64_t now_ms) noexcept;
    void ping_sent(const TavistroProtocol::Ping& ping, std::uint64_t now_ms) noexcept;
    /// The ping under way, if any, will not be answered.
    void forget_ping() noexcept { ping_outstanding_ = false; }

    /// Takes the answer to the ping under way, received at `t4_ns`: sets the clock offset and
    /// returns the round trip in nanoseconds without the server's holding time. Nothing, and
    /// nothing changed, for any other answer.
    std::optional<std::uint64_t> accept(const TavistroProtocol::Pong& pong,
                                        std::uint64_t t4_ns) noexcept;

    bool clock_synced() const noexcept { return clock_synced_; }
    /// Our clock minus the server's.
    std::int64_t clock_offset_ns() const noexcept { return clock_offset_ns_; }

    /// Keeps the server's time of a block and its translation to our clock, over that of 16 blocks
    /// before. Precondition: clock_synced().
    void remember_block(std::uint32_t sequence, std::uint64_t server_ns) noexcept;
    /// The server's time of a block, on both clocks.
    struct SyncRingEntry {
        std::uint32_t sequence = 0;
        std::uint64_t server_time_ns = 0;
        std::uint64_t local_time_ns = 0;
        bool valid = false;
    };
    /// All zeros for a block whose time is not known.
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
