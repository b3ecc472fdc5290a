// Absolute deadlines of the blocks on the server's clock. A late block does not delay later ones.
#pragma once

#include <cstdint>

#include "tools/server/server_options.h"

namespace tavistro::server {

/// Identity of one block of the stream.
struct BlockStamp {
    std::uint32_t sequence = 0;        ///< wraps
    std::uint64_t index = 0;           ///< blocks since the server's start
    std::uint64_t frame_position = 0;  ///< frames since the server's start
    std::uint64_t time_ns = 0;         ///< deadline, server clock
};

/// Counts blocks and computes their deadlines. Reads no clock; not thread-safe.
class BlockSchedule {
  public:
    /// The first block is due at `start_ns` of the server's clock.
    BlockSchedule(const StreamFormat& format, std::uint64_t start_ns,
                  std::uint32_t first_sequence) noexcept;

    const StreamFormat& format() const noexcept { return format_; }
    BlockStamp next() const noexcept;
    /// Number of blocks whose deadline is at or before `now_ns`.
    std::uint64_t due_blocks(std::uint64_t now_ns) const noexcept;

    /// Moves on by `blocks` that were sent or skipped.
    void advance(std::uint64_t blocks = 1) noexcept;
    /// Takes effect with the next block, which keeps its deadline.
    void change_format(const StreamFormat& format) noexcept;
    /// Call after the server's clock was set. The next block is then due at `next_ns`.
    void move_to(std::uint64_t next_ns) noexcept;

  private:
    StreamFormat format_;
    std::uint64_t base_ns_;  ///< deadline of the block `since_base_` blocks ago
    std::uint64_t since_base_ = 0;
    std::uint32_t sequence_;
    std::uint64_t index_ = 0;
    std::uint64_t frame_position_ = 0;
};

/// Sequence number of a block that starts at a wall-clock time: that time in blocks. Sequence
/// numbers thus still increase after a server restart; clients discard blocks with older numbers.
std::uint32_t sequence_of_wall_clock(std::uint64_t unix_ms, const StreamFormat& format) noexcept;

}  // namespace tavistro::server
