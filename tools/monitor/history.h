// Readings of one engine over hours, the older ones merged.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include "tools/monitor/sample.h"

namespace tavistro::monitor {

/// The samples of each client, at most one for each `width_ms`: the last is kept, with the extremes
/// of all where the last value alone would hide something (buffer depth, latencies, host pauses).
/// Counters only grow, so the last has the sum. Samples are merged only while presence, state,
/// error and run stay the same. With a width of 0 none are.
std::vector<Sample> thinned(std::span<const Sample> samples, std::int64_t width_ms);

/// Not thread-safe.
class History {
  public:
    void add(const Sample& sample);
    // Both give samples later than `time_ms`, oldest first.
    /// Of the newest 600 readings, none merged.
    std::vector<Sample> recent(std::int64_t time_ms) const;
    /// One a minute for 24 hours, then one in ten seconds for an hour, then recent().
    std::vector<Sample> after(std::int64_t time_ms) const;

  private:
    std::array<std::deque<Sample>, 3> tiers_;  ///< each takes what leaves the one before it
};

}  // namespace tavistro::monitor
