// Input that one client sent for blocks that are not mixed yet.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <unordered_map>
#include <vector>

#include "net/protocol.h"
#include "tools/server/server_counters.h"
#include "tools/server/server_options.h"

namespace tavistro::server {

/// Assembles a client's fragments into blocks and returns each block once. Blocks may arrive in any
/// order, up to `block_count` blocks ahead. Not thread-safe.
class InputRing {
  public:
    static constexpr std::uint32_t block_count = 256;

    InputRing(const StreamFormat& format, std::size_t channels)
        : format_(format), channels_(channels) {}

    /// Stores a fragment for its block. `next_sequence`: the block that will be mixed next.
    void accept(const TavistroProtocol::AudioFragment& fragment, std::uint32_t next_sequence);

    /// The client's planar samples for a block. Missing fragments are silent; the result is empty
    /// when the whole block is missing. Discards older blocks.
    std::vector<float> take(std::uint32_t sequence);

    /// Empties the ring and switches it to another format. Keeps the counters.
    void change_format(const StreamFormat& format) {
        const InputCounters counted = counters_;
        *this = InputRing(format, channels_);
        counters_ = counted;
    }

    const InputCounters& counters() const noexcept { return counters_; }

    /// Shorter runs of zeros are not counted as gaps: a signal may stay at zero for a few frames.
    static constexpr std::uint64_t least_gap_frames = 8;

  private:
    struct Block {
        std::size_t received = 0;
        std::vector<bool> fragments;
        std::vector<float> samples;
    };

    /// Looks at received blocks only. A gap thus happened in the client or on the way to it, not on
    /// the way from it to the server.
    void count_gaps(std::span<const float> channel);

    StreamFormat format_;
    std::size_t channels_;
    std::unordered_map<std::uint32_t, Block> blocks_;  ///< by sequence
    InputCounters counters_;
    std::optional<std::uint32_t> first_sequence_;  ///< of the first fragment received
    std::uint32_t last_late_ = 0;
    std::uint32_t last_early_ = 0;
    std::optional<std::uint64_t>
        silent_frames_;  ///< since the last non-zero sample; nullopt before the first one
};

}  // namespace tavistro::server
