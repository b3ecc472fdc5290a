// One direction of the network: the reference server's faults plus a base delay and jitter.
#pragma once

#include <algorithm>
#include <cstdint>

#include "bench/diagnosis_lab/dice.h"
#include "tools/server/fault_lane.h"

namespace tavistro::diagnosis_lab {

/// How often and when a datagram arrives.
struct Arrival {
    unsigned copies = 1;
    std::int64_t at_ns = 0;
};

class Line {
  public:
    Line(const server::FaultOptions& faults, const server::StreamFormat& format,
         std::int64_t delay_ns, std::int64_t jitter_ns, std::uint64_t seed)
        : faults_(faults),
          format_(format),
          delay_ns_(delay_ns),
          jitter_ns_(static_cast<double>(jitter_ns)),
          lane_(mixed(seed, 1)),
          dice_(seed, 2) {}

    /// `block_index`: the stream's current block. Keeps the order, except for datagrams that the
    /// faults reorder.
    Arrival send(std::uint64_t block_index, std::int64_t now_ns) {
        const server::Passage passage =
            lane_.pass(faults_, format_, block_index, static_cast<std::uint64_t>(now_ns));
        const auto jitter = static_cast<std::int64_t>(dice_.between(0, jitter_ns_));
        std::int64_t at_ns =
            std::max(now_ns, static_cast<std::int64_t>(passage.due_ns)) + delay_ns_ + jitter;
        if (passage.copies != 0 && !passage.held_back) at_ns = last_ns_ = std::max(last_ns_, at_ns);
        return {passage.copies, at_ns};
    }

  private:
    server::FaultOptions faults_;
    server::StreamFormat format_;
    std::int64_t delay_ns_;
    double jitter_ns_;
    server::FaultLane lane_;
    Dice dice_;
    std::int64_t last_ns_ = 0;
};

}  // namespace tavistro::diagnosis_lab
