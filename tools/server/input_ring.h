// What one client sent for blocks that are yet to be mixed.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "net/protocol.h"
#include "tools/server/server_options.h"

namespace tavistro::server {

/// Counts of one client's input, in blocks.
struct InputCounters {
    std::uint64_t complete = 0;    ///< mixed with every fragment
    std::uint64_t incomplete = 0;  ///< mixed as far as it came
    std::uint64_t missing = 0;     ///< nothing came in time, from the first input on
    std::uint64_t late = 0;        ///< came after its block was mixed
    std::uint64_t early = 0;       ///< tagged too far ahead
    std::uint64_t mismatched = 0;  ///< fragments of another format or channel count
    std::uint64_t duplicates = 0;  ///< repeated fragments
    std::uint64_t gaps = 0;        ///< silences amid the sound of the first channel of what came

    InputCounters& operator+=(const InputCounters& other) noexcept;
};

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
    /// at all. Valid until the next call of take() or accept().
    std::span<const float> take(std::uint32_t sequence);

    const InputCounters& counters() const noexcept { return counters_; }

    /// A shorter run of zeros is no silence: a wave may rest at zero for a moment.
    static constexpr std::uint64_t least_gap_frames = 8;

  private:
    struct Slot {
        bool in_use = false;
        std::uint32_t sequence = 0;
        std::uint16_t received = 0;
        std::vector<bool> fragments;
        std::vector<float> samples;
    };

    Slot& slot_of(std::uint32_t sequence) { return slots_[sequence % block_count]; }
    void open(Slot& slot, const TavistroProtocol::AudioFragment& fragment);
    void recycle(Slot& slot);
    /// Blocks that did not come are skipped: what a client missed itself is told from what was lost
    /// on its way here.
    void count_gaps(std::span<const float> channel);

    StreamFormat format_;
    std::size_t channels_;
    std::array<Slot, block_count> slots_;
    std::vector<float> taken_;
    std::vector<std::vector<float>> spare_;  ///< sample storage: only blocks on the way hold any
    InputCounters counters_;
    std::optional<std::uint32_t> first_sequence_;  ///< that anything was sent for
    std::uint32_t last_late_ = 0;
    std::uint32_t last_early_ = 0;
    std::optional<std::uint64_t>
        silent_frames_;  ///< since the last sound; nothing before the first
};

}  // namespace tavistro::server
