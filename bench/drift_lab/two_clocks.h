// The engine's audio path between two clocks in virtual time: the server's, which sends blocks and
// takes captured input, and the device's, which plays and captures. No threads, no waiting: hours
// take seconds, and equal arguments give equal results.
#pragma once

#include <cstdint>
#include <optional>

namespace tavistro::drift_lab {

/// What the way between the two clocks does. Times are in block periods. Random values are drawn
/// evenly from 0 to the given limit; 0 everywhere is a perfect way.
struct Disturbance {
    double arrival_jitter = 0.0;  ///< delay of a block and its notice, order kept
    double wake_jitter = 0.0;     ///< delay of a device period
    double burst_every = 0.0;     ///< mean distance of bursts of loss
    double burst_length = 0.0;    ///< longest burst
    double pause_every = 0.0;     ///< mean distance of pauses, after which all that waited comes
    double pause_length = 0.0;    ///< longest pause
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

/// Mean, least and most of a fill in blocks, over the second half of the time: it starts after the
/// fill has settled.
struct FillRange {
    double mean = 0.0;
    double least = 0.0;
    double most = 0.0;
};

struct Outcome {
    std::uint64_t blocks_sent = 0;
    std::uint64_t blocks_lost = 0;   ///< on the way to the client
    FillRange playback;              ///< as each device period finds it
    std::uint64_t underruns = 0;     ///< periods played as silence for want of a block
    std::uint64_t overruns = 0;      ///< blocks refused for want of room
    FillRange capture;               ///< of the ring of captured input, as each notice finds it
    std::uint64_t uplink_sent = 0;   ///< blocks of captured input sent back
    std::uint64_t uplink_short = 0;  ///< notices that found too little captured input
    std::uint64_t capture_overflows = 0;  ///< captured periods for which older ones were dropped

    bool faultless() const noexcept { return underruns == 0 && overruns == 0; }
};

Outcome run(const Experiment& experiment);

/// The greatest drift to one side that passes a whole run without an underrun or an overrun, found
/// by halving up to `highest_ppm`, to the nearest `step_ppm` below. Nothing when equal clocks fail
/// too. `experiment.server_faster_ppm` gives the side by its sign.
std::optional<double> greatest_held_ppm(Experiment experiment, double highest_ppm, double step_ppm);

}  // namespace tavistro::drift_lab
