// Reads an engine's shared statistics block. read() is common to all systems; linux/ and windows/
// implement the rest.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "tavistro/stats_block.h"

namespace tavistro::readings {

/// Not thread-safe. An open block keeps its last contents after the run has ended.
class StatsReader {
  public:
    StatsReader() noexcept = default;
    StatsReader(const StatsReader&) = delete;
    StatsReader& operator=(const StatsReader&) = delete;
    ~StatsReader() { close(); }

    /// Opens the block of the client_id. True if one is open already; false if there is none of the
    /// right size.
    bool open(std::uint32_t client_id);
    void close() noexcept;

    /// A copy of the block; each field is read atomically. Nothing when no block is open or when it
    /// does not have this layout.
    std::optional<tavistro_stats_block> read() const;

    /// False when no block is open, or when the engine's process died and left its block behind.
    /// Always true for an open block on systems that remove the block with its engine.
    bool is_held() const noexcept;

  private:
    using Words = std::array<std::uint64_t, TAVISTRO_STATS_BLOCK_BYTES / sizeof(std::uint64_t)>;
    /// Reads each word atomically. False when no block is open or when it was truncated.
    bool copy_to(Words& words) const;

    std::intptr_t handle_ = -1;
};

/// The client_ids under which engines of this computer may have a block now. On Windows, where
/// names cannot be listed, 1 to 64.
std::vector<std::uint32_t> possible_client_ids();

/// True when an engine on this computer runs with the client_id: its block shows a run, and its
/// process is alive.
bool engine_plays_as(std::uint32_t client_id);

}  // namespace tavistro::readings
