// Simulates a server, a network, an engine, its device and a monitor in virtual time, to record
// faults with known causes. It uses no threads and does not wait: minutes take a second, and equal
// scenarios give equal recordings.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench/diagnosis_lab/counts.h"
#include "bench/diagnosis_lab/scenario.h"
#include "tools/monitor/sample.h"

namespace tavistro::diagnosis_lab {

/// Events since the engine's start.
struct Moment {
    std::int64_t time_ms = 0;  ///< as in Sample
    Counts counts{};
};

struct Recording {
    std::vector<monitor::Sample> samples;  ///< about one a second, from the monitor's first look
    std::vector<Moment> moments;           ///< every 250 ms, from the engine's start
    Counts first_look{};                   ///< at the monitor's first look
    Counts last_look{};                    ///< at the monitor's last look
    Counts last{};                         ///< at the end, after all datagrams have arrived
    EngineCounts engine{};                 ///< the engine's counts of the same events

    /// Counts of the latest moment up to `time_ms`, or of the first moment.
    const Counts& counts_at(std::int64_t time_ms) const;
    /// Describes the differences between the engine's and the world's counts; empty if they agree.
    std::string disagreement() const;
};

Recording simulate(const Scenario& scenario);

}  // namespace tavistro::diagnosis_lab
