// A server, a network, an engine, its device and a monitor in virtual time: recordings of faults
// whose causes are known. No threads, no waiting: minutes take a second, and equal scenarios give
// equal recordings.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench/diagnosis_lab/counts.h"
#include "bench/diagnosis_lab/scenario.h"
#include "tools/monitor/sample.h"

namespace tavistro::diagnosis_lab {

/// What had happened since the engine's start.
struct Moment {
    std::int64_t time_ms = 0;  ///< as in Sample
    Counts counts{};
};

struct Recording {
    std::vector<monitor::Sample> samples;  ///< about one a second, from the monitor's first look
    std::vector<Moment> moments;           ///< every 250 ms, from the engine's start
    Counts first_look{};                   ///< what had happened by then
    Counts last_look{};
    Counts last{};          ///< at the end, with everything that was on its way
    EngineCounts engine{};  ///< the same, as the engine counted it

    /// The last moment by then, the first one if there is none.
    const Counts& counts_at(std::int64_t time_ms) const;
    /// Where the engine's counters differ from the world's; empty: nowhere.
    std::string disagreement() const;
};

Recording simulate(const Scenario& scenario);

}  // namespace tavistro::diagnosis_lab
