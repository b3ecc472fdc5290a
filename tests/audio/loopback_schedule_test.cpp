#include "audio/loopback_schedule.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace tavistro {
namespace {

constexpr std::int64_t ticks_per_ms = 10'000;
constexpr std::int64_t start = 5'000'000'000;

LoopbackSchedule schedule_of(const AudioDeviceSettings& settings) {
    return {settings, 1000 * ticks_per_ms, start};
}

TEST(LoopbackSchedule, FaultsComeByCountAndByTheMillisecond) {
    AudioDeviceSettings settings;
    settings.loopback_callback_skip_every = 5;
    settings.loopback_callback_skip_count = 2;
    settings.loopback_callback_duplicate_every = 3;
    settings.loopback_callback_duplicate_count = 1;
    settings.loopback_callback_stall_every_ms = 500;
    settings.loopback_callback_stall_duration_ms = 20;
    settings.loopback_input_silence_every_ms = 1000;
    settings.loopback_input_silence_duration_ms = 100;
    settings.loopback_device_lost_after_ms = 5000;
    settings.loopback_device_lost_duration_ms = 2000;
    LoopbackSchedule schedule = schedule_of(settings);
    std::string periods;
    for (int period = 1; period <= 16; ++period)
        periods += !schedule.begin_period() ? '-' : schedule.duplicates() == 1 ? '2' : '1';
    EXPECT_EQ(periods, "1121--112--211--");

    const std::tuple<std::int64_t, std::uint32_t, bool, bool> cases[] = {
        {-1, 0, false, false},   {0, 20, true, false},   {20, 0, true, false},
        {500, 20, false, false}, {1099, 0, true, false}, {4999, 0, false, false},
        {5000, 20, true, true},  {6999, 0, false, true}, {7000, 20, true, false}};
    for (const auto& [ms, stall_ms, silent, lost] : cases) {
        const std::int64_t now = start + ms * ticks_per_ms + ticks_per_ms / 2;
        EXPECT_EQ(schedule.stall_ms(now), stall_ms) << ms;
        EXPECT_EQ(schedule.input_silent(now), silent) << ms;
        EXPECT_EQ(schedule.device_lost(now), lost) << ms;
    }
    const LoopbackSchedule fine(settings, 1'000'000'000, 0);
    const std::int64_t in_107_days = std::int64_t{107} * 86'400 * 1'000'000'000;
    EXPECT_EQ(fine.stall_ms(in_107_days), 20U);
    EXPECT_EQ(fine.stall_ms(in_107_days - 1), 0U);
}

TEST(LoopbackSchedule, DeadlinesFollowDriftMissedPeriodsAndJitter) {
    AudioDeviceSettings settings;
    const std::pair<std::int32_t, double> drifts[] = {
        {0, 26666.67}, {1000, 26640.03}, {-100'000, 29629.63}, {-2'000'000, 2666666.67}};
    for (const auto& [ppm, ticks] : drifts) {
        settings.loopback_drift_ppm = ppm;
        EXPECT_NEAR(schedule_of(settings).period_ticks(), ticks, 0.005);
    }
    settings.loopback_drift_ppm = 0;
    settings.sample_rate = 1000;
    settings.block_size = 10;  // 100'000 ticks
    // When the first period ends, and when the next one is due: less than one late, one, many.
    const std::pair<std::int64_t, std::int64_t> cases[] = {
        {299'999, 200'000}, {300'000, 400'000}, {1'234'567, 1'300'000}};
    for (const auto& [ends, next] : cases) {
        LoopbackSchedule schedule = schedule_of(settings);
        schedule.advance(start + ends);
        EXPECT_EQ(schedule.next_wake(), start + next) << ends;
    }
    settings.loopback_callback_jitter_max_ms = 3;
    LoopbackSchedule jittery = schedule_of(settings);
    std::uint32_t random = 0x5456424B;
    for (std::int64_t period = 1; period <= 100; ++period) {
        random = random * 1664525U + 1013904223U;
        const std::int64_t jitter_ms = std::int64_t{random % 7} - 3;
        EXPECT_EQ(jittery.next_wake(), start + period * 100'000 + jitter_ms * ticks_per_ms);
        jittery.advance(start + period * 100'000);
    }
}

}  // namespace
}  // namespace tavistro
