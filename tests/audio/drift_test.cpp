// The drift estimate from sync notices, and the read ratio derived from it. bench/drift_lab
// measures the drift that a buffer tolerates.
#include <gtest/gtest.h>

#include <tuple>

#include "audio/drift_estimator.h"
#include "common/drift_law.h"

namespace tavistro {
namespace {

TEST(DriftLaw, CorrectsTowardsTheTargetFillWithinLimits) {
    const std::tuple<double, double, double> cases[] = {{1.0, 1024, 1.0 + 0.00035 / 3},
                                                        {0.9954, 0, 0.9955},
                                                        {0.96, 1536, 0.9955},
                                                        {1.04, 768, 1.0045}};
    for (const auto& [clock_ratio, fill, ratio] : cases)
        EXPECT_DOUBLE_EQ(read_ratio(clock_ratio, fill, 768), ratio) << clock_ratio << " " << fill;
}

TEST(DriftEstimator, FollowsPlausibleNoticesAndMakesEachTheNextReference) {
    // Server position, device frames since the previous notice, and the measured ratio; 0: the
    // estimate does not change.
    const std::tuple<const char*, std::uint64_t, std::uint64_t, double> notices[] = {
        {"first notice is only a reference", 100'000, 1000, 0.0},
        {"server faster", 101'040, 1000, 1.04},
        {"server slower", 101'999, 1000, 0.959},
        {"upper bound excluded", 103'049, 1000, 0.0},
        {"but used as the next reference", 104'059, 1000, 1.01},
        {"server restarted", 500, 1000, 0.0},
        {"lower bound excluded", 1'450, 1000, 0.0},
        {"device stopped", 2'450, 0, 0.0},
        {"restarted server continues", 3'460, 1000, 1.01},
    };
    DriftEstimator drift;
    double expected = 1.0;
    for (const auto& [what, server_position, consumed, measured] : notices) {
        drift.add_local_frames(consumed / 2);
        drift.update_drift();  // a period without a notice, no comparison
        drift.add_local_frames(consumed / 2);
        drift.on_sync(server_position);
        drift.update_drift();
        if (measured != 0.0) expected = expected * 0.98 + measured * 0.02;
        EXPECT_DOUBLE_EQ(drift.pll_ratio(), expected) << what;
    }
}

}  // namespace
}  // namespace tavistro
