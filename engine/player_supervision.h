// Judges the player's reports: what the host is told, and whether the device needs a restart.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>

#include "audio/player_telemetry.h"
#include "engine/state_record.h"

namespace tavistro {

/// What one report amounts to.
struct Verdict {
    Status status;
    std::optional<StatusCategory> recovery_reason{};  ///< set: restart the device
};

/// What earlier reports said.
struct SupervisionMemory {
    std::uint64_t last_underruns = 0;
    std::uint64_t last_overruns = 0;
    std::uint64_t last_playback_dropped = 0;
    std::uint64_t last_format_drops = 0;  ///< at the last report of a mismatch
    std::uint64_t last_output_ready_failures = 0;
    std::uint64_t last_capture_dropped = 0;
    std::uint32_t stall_streak = 0;  ///< consecutive reports without a device period
};

/// Compares each report with the ones before.
///
/// evaluate() runs on the thread of the player's telemetry step, reset_supervision() on the worker
/// after a restart of the audio path; a mutex of its own keeps the two apart.
class PlayerSupervision {
  public:
    /// The first rule that applies decides. A counter that rose shows for this one report.
    /// `sync_stale`: the server has been silent for too long.
    Verdict evaluate(const PlayerTelemetry& telemetry, bool sync_stale) noexcept;
    /// Forgets every report, as the player's counters restart at 0.
    void reset_supervision() noexcept;

  private:
    bool format_differs(const PlayerTelemetry& telemetry) const noexcept;
    bool stalled(const PlayerTelemetry& telemetry) noexcept;

    std::mutex mutex_;
    SupervisionMemory memory_;
};

}  // namespace tavistro
