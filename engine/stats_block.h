// Writer of the statistics block that other processes read (tavistro/stats_block.h).
//
// The block is open during a run. Any non-real-time thread may write at any time; writes to a
// closed block are ignored. A write stores only its own fields: another engine may share the block.
#pragma once

#include <cstdint>
#include <mutex>

#include "audio/player_telemetry.h"
#include "engine/codes.h"
#include "net/client_telemetry.h"
#include "platform/named_memory.h"
#include "tavistro/stats_block.h"

namespace tavistro {

class StatsBlock {
  public:
    /// Creates the run's block, or takes over and clears one that another process still holds.
    /// Returns true if it is open already; returns false and holds nothing if the system refuses
    /// or memory runs out.
    bool open(std::uint32_t client_id) noexcept;
    void close() noexcept;

    void write_state(EngineState state) noexcept;
    void write_error(ErrorCode error) noexcept;
    void write_stream_format(std::uint32_t sample_rate, std::uint32_t block_frames) noexcept;
    void write_client_telemetry(const ClientTelemetry& telemetry) noexcept;
    void write_player_telemetry(const PlayerTelemetry& telemetry) noexcept;

  private:
    /// Stores the fields that `write` sets, unless the block is closed.
    template <typename Write>
    void update(const Write& write) noexcept;

    /// Keeps the block open during a write: the host's thread, for example, may write the error of
    /// a refused second start while the worker closes the block.
    std::mutex mutex_;
    platform::NamedMemory memory_;
};

}  // namespace tavistro
