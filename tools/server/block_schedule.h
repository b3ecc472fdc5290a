// When which block is due: absolute deadlines on the server's clock, so that no lateness adds up.
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

/// Counts blocks and knows their deadlines. Pure; not thread-safe.
class BlockSchedule {
  public:
    /// The first block is due at `start_ns` of the server's clock.
    BlockSchedule(const StreamFormat& format, std::uint64_t start_ns,
                  std::uint32_t first_sequence) noexcept;

    const StreamFormat& format() const noexcept { return format_; }
    /// The block that comes next.
    BlockStamp next() const noexcept;
    /// Blocks that are due by `now_ns`.
    std::uint64_t due_blocks(std::uint64_t now_ns) const noexcept;

    /// Leaves `blocks` behind: sent or given up.
    void advance(std::uint64_t blocks = 1) noexcept;
    /// The next block, at its deadline, is the first one of the new format.
    void change_format(const StreamFormat& format) noexcept;
    /// The server's clock was set: the next block is due at `next_ns`.
    void move_to(std::uint64_t next_ns) noexcept;

  private:
    StreamFormat format_;
    std::uint64_t base_ns_;  ///< deadline of the block `since_base_` blocks ago
    std::uint64_t since_base_ = 0;
    std::uint32_t sequence_;
    std::uint64_t index_ = 0;
    std::uint64_t frame_position_ = 0;
};

/// The sequence number of a block that starts at a wall-clock time: the time counted in blocks. A
/// server that is started again goes on above where it stopped, as clients demand of a stream.
std::uint32_t sequence_of_wall_clock(std::uint64_t unix_ms, const StreamFormat& format) noexcept;

}  // namespace tavistro::server
