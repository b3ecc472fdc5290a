// The virtual device: timing of its periods and processing in them.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <tuple>

#include "audio/loopback_device.h"
#include "audio/loopback_schedule.h"
#include "common/drift_law.h"
#include "platform/clock.h"
#include "support/eventually.h"
#include "support/movable_clock.h"

namespace tavistro {
namespace {

constexpr std::int64_t ticks_per_ms = 10'000;
constexpr std::int64_t start = 5'000'000'000;

LoopbackSchedule schedule_of(const AudioDeviceSettings& settings) {
    return {settings, 1000 * ticks_per_ms, start};
}

TEST(LoopbackSchedule, FaultsFollowPeriodCountsAndMilliseconds) {
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
        {-1, 0, false, false},  {20, 0, true, false},   {1099, 0, true, false},
        {5000, 20, true, true}, {6999, 0, false, true}, {7500, 20, false, false}};
    for (const auto& [ms, stall_ms, silent, lost] : cases) {
        const std::int64_t now = start + ms * ticks_per_ms + ticks_per_ms / 2;
        EXPECT_EQ(schedule.stall_ms(now), stall_ms) << ms;
        EXPECT_EQ(schedule.input_silent(now), silent) << ms;
        EXPECT_EQ(schedule.device_lost(now), lost) << ms;
    }
}

TEST(LoopbackSchedule, DeadlinesAccountForDriftMissedPeriodsAndJitter) {
    AudioDeviceSettings settings;
    const std::pair<std::int32_t, double> drifts[] = {
        {0, 26666.67}, {-100'000, 29629.63}, {-2'000'000, 2666666.67}};
    for (const auto& [ppm, ticks] : drifts) {
        settings.loopback_drift_ppm = ppm;
        EXPECT_NEAR(schedule_of(settings).period_ticks(), ticks, 0.005);
    }
    settings.loopback_drift_ppm = 0;
    settings.sample_rate = 1000;
    settings.block_size = 10;  // 100'000 ticks
    // End of the first period and the next deadline: late by less than one period, by one, by many.
    const std::pair<std::int64_t, std::int64_t> cases[] = {
        {299'999, 200'000}, {300'000, 400'000}, {1'234'567, 1'300'000}};
    for (const auto& [ends, next] : cases) {
        LoopbackSchedule schedule = schedule_of(settings);
        schedule.advance(start + ends);
        EXPECT_EQ(schedule.next_wake(), start + next) << ends;
    }
    settings.loopback_callback_jitter_max_ms = 3;
    LoopbackSchedule jittery = schedule_of(settings);
    std::set<std::int64_t> jitters_ms;
    for (std::int64_t period = 1; period <= 100; ++period) {
        jitters_ms.insert((jittery.next_wake() - start) / ticks_per_ms - period * 10);
        jittery.advance(start + period * 100'000);
    }
    EXPECT_EQ(jitters_ms, (std::set<std::int64_t>{-3, -2, -1, 0, 1, 2, 3}));
}

/// Runs the first periods, including duplicated ones. The server sends the levels 1, 2, 3, ... to
/// two outputs, and sync notices before the second and third period. One period takes 5 ms.
struct LoopbackRun {
    LoopbackRun(AudioDeviceSettings settings, int steps) {
        settings.block_size = 48;
        settings.output_channel_map = {0, 1};
        settings.input_channel_map = {0, 1, 2};
        settings.prebuffer_blocks = 1;
        settings.target_queue_depth = 0;
        PeriodPath periods;
        periods.prepare(settings, 48000, 48, true);
        CaptureSlot captured;
        std::atomic<int> step{0};
        LoopbackDevice device(periods, [&] {
            if (step == steps) return;
            const int now = step + 1;
            while (periods.take_captured(captured)) {
                first.push_back(captured.samples[0] * 64);
                third.push_back(captured.samples[2 * 48]);
            }
            const std::vector<float> block(96, static_cast<float>(now) / 64);
            periods.playback().push_block(
                {.sample_rate = 48000, .frames = 48, .channels = 2, .samples = block});
            if (now <= 2) periods.playback().drift().on_sync(now == 1 ? 1000 : 1098);
            if (now == 4) test::advance_clock_ms(5);
            step = now;
        });
        const std::uint64_t begin_ns = platform::nanosecond_clock();
        EXPECT_TRUE(device.start(settings));
        EXPECT_TRUE(test::eventually([&] { return step == steps; }));
        took_ns = platform::nanosecond_clock() - begin_ns;
        device.stop();
        report = periods.take_telemetry();
        periods.take_peaks(report);
    }
    std::vector<float> first, third;
    std::uint64_t took_ns = 0;
    PlayerTelemetry report;
};

TEST(LoopbackDevice, DuplicatedPeriodsCaptureAndCountFramesButDoNotUpdateTheDrift) {
    AudioDeviceSettings settings;
    settings.loopback_callback_duplicate_every = 2;
    settings.loopback_callback_duplicate_count = 1;
    const LoopbackRun run(settings, 6);
    EXPECT_EQ(run.first, (std::vector<float>{0, 1, 1, 2, 3, 3}));
    EXPECT_EQ(run.third, std::vector<float>(6)) << "there is no third output";
    EXPECT_EQ(run.report.pll_ratio, followed_clock_ratio(1.0, 98.0 / 96));
    EXPECT_GE(run.report.callback_duration_max_us, 5000U);
}

TEST(LoopbackDevice, InputSilenceCoversDuplicatedPeriodsAndSkippedOnesTakeTime) {
    AudioDeviceSettings settings;
    settings.loopback_input_silence_every_ms = settings.loopback_input_silence_duration_ms = 1;
    settings.loopback_callback_duplicate_every = 3;
    settings.loopback_callback_duplicate_count = 1;
    settings.loopback_callback_skip_every = 2;
    settings.loopback_callback_skip_count = 1;
    const LoopbackRun run(settings, 60);  // the meters are due twice
    EXPECT_EQ(run.first, std::vector<float>(60));
    EXPECT_GT(run.report.output_peaks[0], 0U);
    EXPECT_EQ(run.report.input_peaks[0], 0U);
    EXPECT_GE(run.took_ns, 85'000'000U) << "45 periods of 1 ms and 45 skipped ones";
}

}  // namespace
}  // namespace tavistro
