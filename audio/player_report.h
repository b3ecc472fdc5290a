// The player's reports, at most one per second, as a record and as two log lines.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "audio/period_path.h"
#include "audio/player_telemetry.h"
#include "config/settings.h"

namespace tavistro {

/// Determines when a report is due and creates it. One thread at a time.
class PlayerReporter {
  public:
    /// Resets the counts; the next report is due one second after the millisecond tick `now_ms`.
    void restart(std::uint64_t now_ms) noexcept;
    bool due(std::uint64_t now_ms) const noexcept;
    /// Returns the report of the time since the previous one, without peaks, and starts the next
    /// interval.
    PlayerTelemetry take(PeriodPath& periods, const AudioDeviceSettings& settings,
                         bool device_fault, std::uint64_t now_ms) noexcept;

  private:
    std::uint64_t previous_tick_ms_ = 0;
    std::uint64_t previous_received_ = 0;
    std::uint64_t previous_dequeued_ = 0;
    std::uint64_t previous_callbacks_ = 0;
};

/// The log lines of a report, independent of the locale.
std::array<std::string, 2> report_lines(const PlayerTelemetry& telemetry);

}  // namespace tavistro
