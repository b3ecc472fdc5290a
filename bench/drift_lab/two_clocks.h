// Simulates the engine's audio path between two clocks in virtual time. The server clock sends
// blocks and takes captured input; the device clock plays and captures. It uses no threads and does
// not wait: hours take seconds, and equal arguments give equal results.
#pragma once

#include <cstdint>
#include <optional>

namespace tavistro::drift_lab {

/// Disturbances between the two clocks. Times are in block periods. Random values are uniform
/// between 0 and the given limit. The defaults mean no disturbance.
struct Disturbance {
    double arrival_jitter = 0.0;  ///< delay of a block and its sync notice; their order is kept
    double wake_jitter = 0.0;     ///< delay of a device period
    double burst_every = 0.0;     ///< mean interval between loss bursts
    double burst_length = 0.0;    ///< longest burst
    double pause_every = 0.0;   ///< mean interval between pauses; delayed blocks arrive after them
    double pause_length = 0.0;  ///< longest pause
};

struct Experiment {
    std::uint64_t latency_blocks = 6;
    double server_faster_ppm = 0.0;
    double hours = 1.0;
    Disturbance disturbance;
    std::uint64_t seed = 1;
    std::uint32_t sample_rate = 48000;
    std::uint16_t frames = 128;
};

/// Mean, lowest and highest fill in blocks over the second half of the time, when the fill has
/// settled.
struct FillRange {
    double mean = 0.0;
    double least = 0.0;
    double most = 0.0;
};

struct Outcome {
    std::uint64_t blocks_sent = 0;
    std::uint64_t blocks_lost = 0;   ///< on the way to the client
    FillRange playback;              ///< playback buffer at the start of each device period
    std::uint64_t underruns = 0;     ///< silent periods, because the playback buffer had no block
    std::uint64_t overruns = 0;      ///< blocks dropped because the playback buffer was full
    FillRange capture;               ///< capture ring at each sync notice
    std::uint64_t uplink_sent = 0;   ///< blocks of captured input sent back
    std::uint64_t uplink_short = 0;  ///< sync notices at which there was too little captured input
    std::uint64_t capture_overflows = 0;  ///< captured periods that displaced older input

    bool faultless() const noexcept { return underruns == 0 && overruns == 0; }
};

Outcome run(const Experiment& experiment);

/// The largest drift in one direction that completes a run without an underrun or an overrun.
/// Bisects up to `highest_ppm` and rounds down to a multiple of `step_ppm`. Nothing when equal
/// clocks fail too. The sign of `experiment.server_faster_ppm` selects the direction.
std::optional<double> greatest_held_ppm(Experiment experiment, double highest_ppm, double step_ppm);

}  // namespace tavistro::drift_lab
