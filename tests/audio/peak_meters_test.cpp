// The meters, and what a period measures besides.
#include "audio/peak_meters.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "audio/period_path.h"
#include "platform/clock.h"

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
    for (const double rate : {0.0, -48000.0, static_cast<double>(NAN)}) {
        schedule.configure(rate, 128);
        EXPECT_TRUE(schedule.tick() && schedule.tick());
    }
}

TEST(PeriodPath, TakesAnyRateAndMeasuresAPeriodThatTookHours) {
    PeriodPath periods;
    periods.prepare({}, INFINITY, 128, false);
    periods.record_duration(-7, 4 * 3600 * platform::performance_frequency());
    EXPECT_EQ(periods.take_telemetry().callback_duration_last_us,
              std::uint64_t{4} * 3600 * 1'000'000);
    EXPECT_EQ(periods.take_telemetry().actual_sample_rate, 4'294'967'295U);
}

}  // namespace
}  // namespace tavistro
