// Evaluates the player's reports: the status for the host, and whether to restart the device.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>

#include "audio/player_telemetry.h"
#include "engine/state_record.h"

namespace tavistro {

/// Result of one report.
struct Verdict {
    Status status;
    std::optional<StatusCategory> recovery_reason{};  ///< if set, restart the device
};

/// State kept between reports.
struct SupervisionMemory {
    std::uint64_t last_underruns = 0;
    std::uint64_t last_overruns = 0;
    std::uint64_t last_playback_dropped = 0;
    std::uint64_t last_format_drops = 0;  ///< at the last reported mismatch
    std::uint64_t last_output_ready_failures = 0;
    std::uint64_t last_capture_dropped = 0;
    std::uint32_t stall_streak = 0;  ///< consecutive reports without a device period
};

/// Compares each report with the previous ones.
///
/// evaluate() runs on the player's telemetry thread, reset_supervision() on the worker after a
/// restart of the audio path. An internal mutex serialises them.
class PlayerSupervision {
  public:
    /// The first rule that applies decides. A rise of a counter is shown for one report only.
    /// `sync_stale`: no sync notice has arrived within the limit.
    Verdict evaluate(const PlayerTelemetry& telemetry, bool sync_stale) noexcept;
    /// Discards the state: the player's counters restart at 0.
    void reset_supervision() noexcept;

  private:
    bool format_differs(const PlayerTelemetry& telemetry) const noexcept;
    bool stalled(const PlayerTelemetry& telemetry) noexcept;

    std::mutex mutex_;
    SupervisionMemory memory_;
};

}  // namespace tavistro
