// What a run amounts to, from successive looks at an engine. Each class follows one run.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "tavistro/engine.h"
#include "tavistro/stats_block.h"

namespace tavistro::host {

struct NewEvent {
    tavistro_engine_event event;
    std::uint64_t missed_before;  ///< events that came and went unseen just before this one
};

class EventFollower {
  public:
    /// The events that no earlier record showed, oldest first.
    std::vector<NewEvent> take_new(const tavistro_engine_state& state);

  private:
    std::uint64_t last_sequence_ = 0;  ///< they start at 1
};

/// Tells how old numbers are. The block does not say when it was written, so this takes numbers for
/// refreshed when a count that goes on has moved: that of the rendered frames, of the round trips.
class StatsAges {
  public:
    void add(const tavistro_stats_block& now, double time_s);
    double playback_s(double time_s) const { return time_s - playback_time_s_; }
    double round_trip_s(double time_s) const { return time_s - round_trip_time_s_; }

  private:
    std::optional<tavistro_stats_block> last_;
    double playback_time_s_ = 0;
    double round_trip_time_s_ = 0;
};

/// The player's counts start anew with each start of the audio path: after a recovery of the
/// device, after a change of the stream's format. Only what the caller has seen can be added up.
class RunTotals {
  public:
    /// The block with the counts, and the longest way to the output, of the run so far.
    tavistro_stats_block add(const tavistro_stats_block& now);

  private:
    tavistro_stats_block before_{};  ///< totals up to the latest start of the audio path
    tavistro_stats_block last_{};
};

}  // namespace tavistro::host
