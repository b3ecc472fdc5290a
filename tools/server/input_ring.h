// What one client sent for blocks that are yet to be mixed.
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

/// Collects a client's fragments per block and hands each block out once. Blocks come in any
/// order; the ring reaches `block_count` blocks ahead. Not thread-safe.
class InputRing {
  public:
    static constexpr std::uint32_t block_count = 256;

    InputRing(const StreamFormat& format, std::size_t channels)
        : format_(format), channels_(channels) {}

    /// Keeps a fragment for its block; `next_sequence` is the block that is mixed next.
    void accept(const TavistroProtocol::AudioFragment& fragment, std::uint32_t next_sequence);

    /// The client's samples for a block, planar, where nothing came silent; empty when nothing came
    /// at all. Forgets the blocks before it.
    std::vector<float> take(std::uint32_t sequence);

    /// Empty, for blocks of another format; counts go on.
    void change_format(const StreamFormat& format) {
        const InputCounters counted = counters_;
        *this = InputRing(format, channels_);
        counters_ = counted;
    }

    const InputCounters& counters() const noexcept { return counters_; }

    /// A shorter run of zeros is no silence: a wave may rest at zero for a moment.
    static constexpr std::uint64_t least_gap_frames = 8;

  private:
    /// A block on its way.
    struct Block {
        std::size_t received = 0;
        std::vector<bool> fragments;
        std::vector<float> samples;
    };

    /// Blocks that did not come are skipped: what a client missed itself is told from what was lost
    /// on its way here.
    void count_gaps(std::span<const float> channel);

    StreamFormat format_;
    std::size_t channels_;
    std::unordered_map<std::uint32_t, Block> blocks_;  ///< by sequence
    InputCounters counters_;
    std::optional<std::uint32_t> first_sequence_;  ///< that anything was sent for
    std::uint32_t last_late_ = 0;
    std::uint32_t last_early_ = 0;
    std::optional<std::uint64_t>
        silent_frames_;  ///< since the last sound; nothing before the first
};

}  // namespace tavistro::server
