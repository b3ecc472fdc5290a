// Judges the player's reports: what the host is told, and whether the device needs a restart.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>

#include "audio/player_telemetry.h"
#include "engine/state_record.h"

namespace tavistro {

/// What one report amounts to.
struct Verdict {
    Status status;
    std::optional<tavistro_status_category> recovery_reason{};  ///< set: restart the device
};

/// Compares each report with the ones before.
///
/// evaluate() runs on the thread of the player's telemetry step, reset() on the worker after a
/// restart of the audio path; a mutex of its own keeps the two apart.
class PlayerSupervision {
  public:
    static constexpr std::size_t counter_count = 5;

    /// The first rule that applies decides. A counter that rose shows for this one report.
    /// `sync_stale`: the server has been silent for too long.
    Verdict evaluate(const PlayerTelemetry& telemetry, bool sync_stale) noexcept;
    /// Forgets every report: the player's counters start anew.
    void reset() noexcept;

  private:
    bool format_differs(const PlayerTelemetry& telemetry) const noexcept;
    bool stalled(const PlayerTelemetry& telemetry) noexcept;

    std::mutex mutex_;
    std::array<std::uint64_t, counter_count> last_counters_{};
    std::uint64_t last_format_drops_ = 0;  ///< at the last report of a mismatch
    std::uint32_t stall_streak_ = 0;       ///< reports in a row without a device period
};

}  // namespace tavistro
