#include "audio/peak_meters.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace tavistro {
namespace {

TEST(PeakMeters, KeepTheLoudestThousandthUntilTakenAndStopAt32Channels) {
    const std::pair<float, std::uint32_t> cases[] = {{0.0004F, 0},    {0.0006F, 1},  {-0.5F, 500},
                                                     {0.9996F, 1000}, {-3.5F, 1000}, {NAN, 0}};
    for (const auto& [sample, permille] : cases)
        EXPECT_EQ(peak_permille({&sample, 1}), permille);

    PeakMeters meters;
    meters.configure(40);
    for (const float level : {0.25F, 0.75F, 0.5F})
        meters.raise(31, std::vector{level});
    meters.raise(32, std::vector{1.0F});  // no meter of its own, no neighbour's either
    EXPECT_EQ(meters.take()[31], 750U);
    EXPECT_EQ(meters.take()[31], 0U);
}

TEST(MeterSchedule, IsDueAboutThirtyTimesASecond) {
    MeterSchedule schedule;
    schedule.configure(48000, 128);
    for (int period = 0; period < 39; ++period)
        EXPECT_EQ(schedule.tick(), period % 13 == 0);
    schedule.configure(0, 128);
    EXPECT_TRUE(schedule.tick() && schedule.tick());
}

}  // namespace
}  // namespace tavistro
