// Two clocks in virtual time: what the estimator takes from the server's notices, which difference
// the buffer holds, and that it holds no more.

#include <gtest/gtest.h>

#include <tuple>

#include "audio/drift_estimator.h"
#include "bench/drift_lab/two_clocks.h"

namespace tavistro {
namespace {

TEST(DriftEstimator, FollowsPlausibleNoticesAndRebasesOnAll) {
    // The server's position, the device frames since the notice before, and what moves the
    // estimate: 0 when nothing does.
    const std::tuple<const char*, std::uint64_t, std::uint64_t, double> notices[] = {
        {"first notice is a reference only", 100'000, 1000, 0.0},
        {"server faster", 101'040, 1000, 1.04},
        {"server slower", 101'999, 1000, 0.959},
        {"upper bound excluded", 103'049, 1000, 0.0},
        {"but the next reference", 104'059, 1000, 1.01},
        {"server restarted", 500, 1000, 0.0},
        {"lower bound excluded", 1'450, 1000, 0.0},
        {"device stood still", 2'450, 0, 0.0},
        {"position repeated", 2'450, 1000, 0.0},
    };
    DriftEstimator drift;
    double expected = 1.0;
    for (const auto& [what, server_position, consumed, measured] : notices) {
        drift.add_local_frames(consumed / 2);
        drift.update_drift();  // a period without a notice compares nothing
        drift.add_local_frames(consumed / 2);
        drift.on_sync(server_position);
        drift.update_drift();
        if (measured != 0.0) expected = expected * 0.98 + measured * 0.02;
        EXPECT_DOUBLE_EQ(drift.pll_ratio(), expected) << what;
        EXPECT_DOUBLE_EQ(drift.capture_ratio(), 1.0 / expected) << what;
    }
}

// Short blocks settle soon.
drift_lab::Outcome run(std::uint64_t latency_blocks, double server_faster_ppm) {
    return drift_lab::run({.latency_blocks = latency_blocks,
                           .server_faster_ppm = server_faster_ppm,
                           .hours = 240'000 * 8 / 48000.0 / 3600.0,
                           .disturbance = {},
                           .frames = 8});
}

TEST(DriftRange, LossesAndPausesAreCountedAndReproducible) {
    drift_lab::Experiment experiment{.hours = 0.02,
                                     .disturbance = {.arrival_jitter = 0.5,
                                                     .wake_jitter = 0.25,
                                                     .burst_every = 500,
                                                     .burst_length = 8,
                                                     .pause_every = 700,
                                                     .pause_length = 3}};
    const auto first = drift_lab::run(experiment);
    EXPECT_GT(first.blocks_lost, 0U);
    EXPECT_EQ(first.uplink_sent + first.uplink_short, first.blocks_sent - first.blocks_lost);
    EXPECT_EQ(first.underruns, drift_lab::run(experiment).underruns);
    experiment.disturbance.pause_length = 40;  // beyond what six blocks hold
    EXPECT_GT(drift_lab::run(experiment).underruns, first.underruns + 100);
}

TEST(DriftRange, IsHeldByTheFillAlone) {
    for (const std::uint64_t blocks : {3U, 6U}) {
        const auto latency = static_cast<double>(blocks);
        // The fill swings by a block around where the correction equals the drift.
        const double faster = 350.0 * 3.5 / latency;
        const double slower = 350.0 * (latency - 1.5) / latency;
        for (const double ppm : {0.9 * faster, 0.0, -0.9 * slower})
            EXPECT_TRUE(run(blocks, ppm).faultless()) << ppm;
        EXPECT_GT(run(blocks, 1.3 * faster + 30).overruns, 0U);
        EXPECT_GT(run(blocks, -1.3 * slower - 30).underruns, 0U);
    }
}

}  // namespace
}  // namespace tavistro
