// The player's reports: at most one a second, as a record and as two lines of log.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "audio/period_path.h"
#include "audio/player_telemetry.h"
#include "config/settings.h"

namespace tavistro {

/// Decides when a report is due and takes it. One thread at a time.
class PlayerReporter {
  public:
    /// The next report is due a second after `now_ms`, the millisecond tick, and counts from 0.
    void restart(std::uint64_t now_ms) noexcept;
    bool due(std::uint64_t now_ms) const noexcept;
    /// The report of the time since the last one, without peaks. The path's intervals and the next
    /// second begin anew.
    PlayerTelemetry take(PeriodPath& periods, const AudioDeviceSettings& settings,
                         bool device_fault, std::uint64_t now_ms) noexcept;

  private:
    std::uint64_t previous_tick_ms_ = 0;
    std::uint64_t previous_received_ = 0;
    std::uint64_t previous_dequeued_ = 0;
    std::uint64_t previous_callbacks_ = 0;
};

/// The report as the log shows it, independent of the process's locale.
std::array<std::string, 2> report_lines(const PlayerTelemetry& telemetry);

}  // namespace tavistro
