// How a run is shown: in lines for people, or as one JSON object per line for programs.
#pragma once

#include <iosfwd>
#include <memory>
#include <optional>
#include <span>

#include "tavistro/engine.h"
#include "tavistro/stats_block.h"
#include "tools/host/run_history.h"

namespace tavistro::host {

using Meters = std::span<const tavistro_channel_meter>;

inline Meters input_meters(const tavistro_engine_state& state) {
    return Meters(state.input_meters).first(state.input_meter_count);
}
inline Meters output_meters(const tavistro_engine_state& state) {
    return Meters(state.output_meters).first(state.output_meter_count);
}

/// The statistics of the run so far, and how long ago they were refreshed.
struct RunStats {
    tavistro_stats_block block;
    double playback_age_s;    ///< of what the player counts and measures, the peaks too
    double round_trip_age_s;  ///< of the last round trip
};

/// What a finished run amounted to.
struct RunSummary {
    double seconds;                             ///< from the start to the end of the stop
    double cpu_seconds;                         ///< processor time of the process in between
    tavistro_engine_state last;                 ///< the record after the stop
    std::optional<tavistro_stats_block> stats;  ///< of the whole run, nothing when there were none

    bool has_played() const { return stats && stats->rendered_frames > 0; }
};

/// Times are seconds since the start of the run, and counts are those of the whole run.
class Report {
  public:
    virtual ~Report() = default;
    virtual void state_changed(double time_s, const tavistro_engine_state& state) = 0;
    virtual void event(double time_s, const NewEvent& event) = 0;
    virtual void status(double time_s, const tavistro_engine_state& state,
                        const std::optional<RunStats>& stats) = 0;
    virtual void summary(const RunSummary& summary) = 0;
};

/// Both write to `out`, which must outlive them, and flush it after every line.
std::unique_ptr<Report> make_human_report(std::ostream& out);
std::unique_ptr<Report> make_json_report(std::ostream& out);

}  // namespace tavistro::host
