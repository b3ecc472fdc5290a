// Reads an engine's shared statistics block.
//
// read() is common to all systems, the rest stands in the folder of each.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "tavistro/stats_block.h"

namespace tavistro::readings {

/// Not thread-safe: one owner. A block that is held keeps showing the last contents after the run
/// has ended.
class StatsReader {
  public:
    StatsReader() noexcept = default;
    StatsReader(const StatsReader&) = delete;
    StatsReader& operator=(const StatsReader&) = delete;
    ~StatsReader() { close(); }

    /// Opens the block of the client_id; true when one is open already. False when there is none
    /// of the right size.
    bool open(std::uint32_t client_id);
    void close() noexcept;

    /// A copy of the block, each field read in one piece; nothing when no block is open or it is
    /// not, or no longer, one of this layout.
    std::optional<tavistro_stats_block> read() const;

    /// False when no block is open or its engine has died: the process is gone, the block stayed.
    /// Where a block ends with its engine, an open one is always held.
    bool is_held() const noexcept;

  private:
    using Words = std::array<std::uint64_t, TAVISTRO_STATS_BLOCK_BYTES / sizeof(std::uint64_t)>;
    /// Every word in one piece; false when no block is open or it has lost its size.
    bool copy_to(Words& words) const;

    std::intptr_t handle_ = -1;
};

/// Whether an engine on this computer plays under the client_id: its block shows a run, and it has
/// not died since.
bool engine_plays_as(std::uint32_t client_id);

}  // namespace tavistro::readings
