// The engine's side of the statistics block that other processes read (tavistro/stats_block.h).
//
// Open for the length of one run. Every write may come from any non-real-time thread at any time;
// while the block is closed it goes nowhere, so callers need not ask. A write stores the fields
// that are its own and no others: another engine may hold the same block.
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
    /// Makes the run's block, or takes over and clears the one that another process still holds.
    /// True when open already. False when the system refuses or memory runs out; nothing is held
    /// then.
    bool open(std::uint32_t client_id) noexcept;
    void close() noexcept;

    void write_state(EngineState state) noexcept;
    void write_error(ErrorCode error) noexcept;
    void write_stream_format(std::uint32_t sample_rate, std::uint32_t block_frames) noexcept;
    void write_client_telemetry(const ClientTelemetry& telemetry) noexcept;
    void write_player_telemetry(const PlayerTelemetry& telemetry) noexcept;

  private:
    /// Stores the fields that `write` puts, unless the block is closed.
    template <typename Write>
    void update(const Write& write) noexcept;

    /// Keeps the block open during a write: a refused second start, for instance, writes its error
    /// from the host's thread while the worker closes the block.
    std::mutex mutex_;
    platform::NamedMemory memory_;
};

}  // namespace tavistro
