// Decides which datagrams the simulated network drops, duplicates or delays. Uses no sockets.
#pragma once

#include <cstdint>
#include <random>

#include "tools/server/server_options.h"

namespace tavistro::server {

/// The decision for one datagram.
struct Passage {
    unsigned copies = 1;       ///< 0: dropped, 2: duplicated
    bool held_back = false;    ///< delayed for reordering: later datagrams overtake it
    std::uint64_t due_ns = 0;  ///< local clock; not later than now: no delay
};

/// One direction of the network with its own seeded random generator: equal seeds and faults give
/// equal decisions for the n-th datagram. Delayed datagrams keep their order, except those selected
/// for reordering. Not thread-safe.
class FaultLane {
  public:
    explicit FaultLane(std::uint64_t seed) : random_(seed) {}

    /// `block_index`: the stream's current block. `now_ns`: local clock.
    Passage pass(const FaultOptions& faults, const StreamFormat& format, std::uint64_t block_index,
                 std::uint64_t now_ns);

  private:
    /// Uniform in [0, 1).
    double draw();

    std::mt19937_64 random_;
    std::uint64_t last_due_ns_ = 0;  ///< latest due time of a datagram that keeps its order
};

/// True during a loss burst, in which every datagram is dropped.
bool line_is_dead(const FaultOptions& faults, const StreamFormat& format,
                  std::uint64_t block_index) noexcept;
/// True while the server sends no sync notices.
bool sync_is_paused(const FaultOptions& faults, const StreamFormat& format,
                    std::uint64_t block_index) noexcept;

}  // namespace tavistro::server
