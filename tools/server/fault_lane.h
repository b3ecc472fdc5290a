// Which datagrams a bad network loses, repeats or holds up: decisions only, no sockets.
#pragma once

#include <cstdint>
#include <random>

#include "tools/server/server_options.h"

namespace tavistro::server {

/// What becomes of one datagram.
struct Passage {
    unsigned copies = 1;       ///< 0: lost, 2: repeated
    bool held_back = false;    ///< so that later ones overtake it
    std::uint64_t due_ns = 0;  ///< local clock; not later than now: passes at once
};

/// One direction of the network with its own random choices, drawn from a seed: equal seeds and
/// faults give equal decisions for the n-th datagram. Delayed datagrams keep their order, except
/// those picked for reordering. Not thread-safe.
class FaultLane {
  public:
    explicit FaultLane(std::uint64_t seed) : random_(seed) {}

    /// `block_index` is the stream's, `now_ns` local.
    Passage pass(const FaultOptions& faults, const StreamFormat& format, std::uint64_t block_index,
                 std::uint64_t now_ns);

  private:
    /// Uniform in [0, 1).
    double draw();

    std::mt19937_64 random_;
    std::uint64_t last_due_ns_ = 0;  ///< of the datagrams in order
};

/// True in the dead time of a burst of loss.
bool line_is_dead(const FaultOptions& faults, const StreamFormat& format,
                  std::uint64_t block_index) noexcept;
/// True while the server withholds its Sync.
bool sync_is_paused(const FaultOptions& faults, const StreamFormat& format,
                    std::uint64_t block_index) noexcept;

}  // namespace tavistro::server
