// The player on a test device that runs periods on request, and on its virtual device with a real
// thread.
#include "audio/asio_player.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <tuple>

#include "audio/test_device.h"
#include "platform/clock.h"
#include "support/eventually.h"
#include "support/movable_clock.h"

namespace tavistro::test {
namespace {

using Levels = std::vector<float>;

class Player : public testing::Test {
  protected:
    Player() {
        settings.block_size = 4;
        settings.output_channel_map = settings.input_channel_map = {0, 1};
        settings.prebuffer_blocks = 1;
        settings.target_queue_depth = 0;  // no drift control: ratio 1.0
        reset_realtime_violations();
    }
    ~Player() override {
        player.stop();
        use_running_clock();
        EXPECT_EQ(panel->calls_out_of_turn, 0);
        EXPECT_EQ(realtime_violations().total(), 0U) << "in a period of this test";
    }
    bool start(bool loopback = false) {
        {
            const std::lock_guard guard(mutex);  // the previous run's thread may still log
            lines.clear();
        }
        return (player.*(loopback ? &AsioPlayer::start_loopback : &AsioPlayer::start))(
            settings,
            [this](const std::string& line) {
                const std::lock_guard guard(mutex);
                lines.push_back(line);
            },
            [this](auto rate, auto frames, auto channels, const Levels& samples) {
                const std::lock_guard guard(mutex);
                captured_format = {rate, frames, channels};
                captured.push_back(samples);
            },
            [this](const PlayerTelemetry& report) {
                const std::lock_guard guard(mutex);
                reports.push_back(report);
            });
    }
    void push(std::uint32_t sample_rate, const Levels& samples, std::uint64_t server_ns = 0,
              std::uint64_t delivery_ns = 0) {
        const auto frames = static_cast<std::uint16_t>(samples.size() / 2);
        player.push_block(0, sample_rate, frames, 2, samples, server_ns, 0, delivery_ns);
    }
    void notice(std::uint64_t server_frame_position) {
        player.on_sync({.server_frame_position = server_frame_position, .server_time_ns = 1});
    }

    AudioDeviceSettings settings;
    std::shared_ptr<DevicePanel> panel = std::make_shared<DevicePanel>();
    std::mutex mutex;
    std::vector<std::string> lines;
    std::array<std::uint32_t, 3> captured_format{};
    std::vector<Levels> captured;
    std::vector<PlayerTelemetry> reports;
    AsioPlayer player{[this] { return std::make_unique<TestDevice>(panel); }};
};

TEST_F(Player, FailedStartsLogTheReasonAndReleaseTheDevice) {
    const auto expect_refusal = [&](const char* line, bool loopback = false) {
        EXPECT_FALSE(start(loopback));
        EXPECT_EQ(lines, std::vector<std::string>{line});
        EXPECT_EQ(panel.use_count(), 1) << "a device still exists";
    };
    settings.input_channel_map = {5, 6, 5};
    expect_refusal("[asio] input_channel_map contains duplicate hardware channels.");
    settings.output_channel_map = {-1, 0, 0};
    expect_refusal("[asio] output_channel_map contains a negative channel.");
    settings.output_channel_map = settings.input_channel_map = {};
    expect_refusal("[asio] both output_channel_map and input_channel_map are empty.");
    expect_refusal("[asio] loopback requires both output and input channel maps.", true);
    settings.output_channel_map = {0};
    panel->starts = false;
    expect_refusal("[audio] device start failed.");
    settings.max_queue_blocks = std::uint64_t{1} << 60;
    expect_refusal("[audio] not enough memory for the audio buffers.");
}

TEST_F(Player, PlaysPushedBlocksAndDeliversCapturedInput) {
    panel->input = 0.25F;
    ASSERT_TRUE(start());
    for (const std::uint64_t position : {1000U, 1204U}) {
        notice(position);
        for (int period = 0; period < 50; ++period)
            panel->period();
    }
    EXPECT_EQ(captured.size(), 7U) << "capacity of the ring";
    EXPECT_DOUBLE_EQ(player.capture_ratio(), 1 / (0.98 + 204.0 / 200 * 0.02));
    captured.clear();
    push(48000, {0.5F, 0.5F, 0.5F, 0.625F, 1.0F, 1.0F, 1.0F, 1.0F});
    const Levels input{0.25F, 0.25F, 0.25F, 0.25F, 0.5F, 0.5F, 0.5F, 0.5F};
    EXPECT_EQ(captured, std::vector(7, input));
    panel->period();
    EXPECT_EQ(panel->played, (std::vector<Levels>{{0.5F, 0.5F, 0.5F, 0.625F}, Levels(4, 1.0F)}))
        << "bit-exact without a target, despite the drift";
    EXPECT_EQ(captured.size(), 7U) << "no callback on the device thread";
}

TEST_F(Player, ReportsOncePerSecond) {
    set_manual_clock();
    settings.block_size = 0;
    settings.target_queue_depth = 3;
    settings.prebuffer_blocks = 2;
    settings.input_channel_map = {0, 1, 2};
    panel->frames = 4;
    panel->rate_error = -0.1;
    panel->input = -0.2506F;
    ASSERT_TRUE(start());
    panel->faulty = true;
    advance_clock_ms(989);
    const Levels samples{0.1F, -0.25F, 0.0F, 0.0F, 0.0F, 0.0F, 0.75F, 0.0F};
    push(48000, samples);  // not the device's rate
    player.push_block(0, 47999, 4, 2, {}, 0, 0, 0);
    const std::uint64_t now = platform::nanosecond_clock();
    push(47999, samples);
    panel->period();
    push(47999, samples, now - 40'000, now - 30'000);
    push(47999, samples, now - 25'000, now - 20'000);
    push(47999, samples, now + 1'000, now - 10'000);  // server time in the future
    int periods = 1;
    panel->during_period = [&] {
        ++periods;
        advance_clock_ms(periods == 5 ? 7 : periods == 10 ? 3 : 0);
    };
    while (periods < 10) {
        panel->period();
        panel->input = 0.3F;  // after the period with due meters
    }
    advance_clock_ms(1);
    push(47999, samples);
    const PlayerTelemetry t = reports.at(0);
    EXPECT_EQ(captured_format, (std::array{47999U, 4U, 3U}));
    EXPECT_EQ(testing::PrintToString(std::tuple(
                  t.format_drops, t.output_ready_failures, t.device_fault, t.configured_sample_rate,
                  t.actual_sample_rate, t.configured_block_size, t.actual_block_frames,
                  t.callback_duration_last_us, t.callback_duration_max_us, t.queue_latency_last_us,
                  t.queue_latency_max_us, t.server_to_output_last_us, t.server_to_output_max_us,
                  t.input_peak_count, t.output_peak_count)),
              "(1, 10, true, 48000, 47999, 0, 4, 3000, 7000, 10, 30, 25, 40, 3, 2)");
    EXPECT_EQ(t.input_peaks, (std::array<std::uint32_t, max_meters>{251, 501, 752}));
    EXPECT_EQ(t.output_peaks, (std::array<std::uint32_t, max_meters>{})) << "silent period";

    advance_clock_ms(1000);
    notice(0);
    notice(0);
    ASSERT_EQ(reports.size(), 2U);
    EXPECT_EQ(reports.at(1).input_peaks, (std::array<std::uint32_t, max_meters>{}));
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "[asio] recvBlocksPerSec=5 callbacksPerSec=10 dequeuedPerSec=4 "
                         "pll_ratio=1.000000 renderedFrames=28",
                         "[asio] playbackBuffer frames=5 blocks=1.25 ms=0.10 target_frames=12 "
                         "error_frames=-7.0 minFrames=1 maxFrames=16 underruns=3 overruns=0 "
                         "playbackDropped=1 captureDropped=2",
                         "[asio] recvBlocksPerSec=0 callbacksPerSec=0 dequeuedPerSec=0 "
                         "pll_ratio=1.000000 renderedFrames=28",
                         "[asio] playbackBuffer frames=5 blocks=1.25 ms=0.10 target_frames=12 "
                         "error_frames=-7.0 minFrames=5 maxFrames=5 underruns=3 overruns=0 "
                         "playbackDropped=1 captureDropped=2"}));
}

TEST_F(Player, RestartForgetsThePreviousRun) {
    set_manual_clock();
    settings.sample_rate = 7500;  // meters are due in every third period
    settings.block_size = 100;
    settings.prebuffer_blocks = 2;
    settings.target_queue_depth = 3;
    settings.max_queue_blocks = 6;
    // The server clock is 2 % fast.
    const auto notice_at = [&](std::uint64_t period) { notice(102 * period); };
    const auto push_ramp = [&](float from, std::uint64_t age_ns) {
        Levels samples(200);
        std::generate(samples.begin(), samples.end(), [&] { return from += 0.001F; });
        const std::uint64_t then = platform::nanosecond_clock() - age_ns;
        push(7500, samples, then, then);
    };
    std::uint64_t work_ns = 0;
    panel->during_period = [&] { advance_clock_ns(work_ns); };
    const auto run = [&] {
        EXPECT_TRUE(start());
        captured.clear();
        reports.clear();
        std::vector<Levels> played;
        work_ns = 1'000'000;
        for (std::uint64_t period = 0; period < 12; ++period) {
            panel->input = 0.01F * static_cast<float>(period);
            if (period < 6) push_ramp(0.02F * static_cast<float>(period), 1'000'000);
            if (period > 2) notice_at(period);
            if (period == 3) notice_at(period);  // two notices between two periods
            panel->period();
            played.insert(played.end(), panel->played.begin(), panel->played.end());
        }
        advance_clock_ms(1000 - 12);
        notice(0);
        EXPECT_TRUE(played[0].empty() && !played[2].empty()) << "playback starts with two blocks";
        return std::tuple(played, captured, reports, lines);
    };
    const auto fresh = run();
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_NE(reports[0].pll_ratio, 1.0);
    EXPECT_EQ(reports[0].input_peaks[0], 90U);
    EXPECT_EQ(captured.size(), 12U);

    ASSERT_TRUE(start());
    work_ns = 9'000'000;
    panel->input = 0.5F;
    for (int block = 0; block < 7; ++block)
        push_ramp(0.7F, 50'000'000);
    notice_at(0);
    panel->period();
    notice_at(1);
    for (int period = 0; period < 4; ++period)
        panel->period();
    EXPECT_FALSE(panel->played[0].empty()) << "must play when it is stopped";
    EXPECT_TRUE(run() == fresh);
    ASSERT_TRUE(start());
    for (int period = 0; period < 9; ++period)  // more than the capacity of the capture ring
        panel->period();
    EXPECT_TRUE(run() == fresh);
}

TEST_F(Player, StopInterruptsEveryWaitOfTheLoopback) {
    // A wait or stall that ignores the stop exceeds the time limit of the test.
    settings.loopback_callback_stall_every_ms = 3'600'000;
    settings.loopback_callback_stall_duration_ms = 3'600'000;
    ASSERT_TRUE(start(true));
    EXPECT_EQ(lines, std::vector<std::string>{"[asio] virtual loopback started."});
    platform::sleep_ms(20);
    settings.block_size = 65535;
    settings.sample_rate = 1;
    ASSERT_TRUE(start(true));
    player.stop();
    EXPECT_TRUE(captured.empty());
}

TEST_F(Player, LostLoopbackDeviceIsReportedUntilItReturnsOrStops) {
    settings.block_size = 48;
    settings.loopback_device_lost_duration_ms = 3'600'000;
    const auto fault = [&] {
        const std::lock_guard guard(mutex);
        return !reports.empty() && reports.back().device_fault;
    };
    for (const bool comes_back : {true, false}) {
        ASSERT_TRUE(start(true));
        advance_clock_ms(1000);
        EXPECT_TRUE(eventually(fault));
        if (!comes_back) continue;
        advance_clock_ms(settings.loopback_device_lost_duration_ms);
        EXPECT_TRUE(eventually([&] { return !fault(); }));
    }
    settings.input_channel_map = {0, 1, 2};
    ASSERT_TRUE(start());
    panel->period();
    advance_clock_ms(1000);
    notice(0);
    EXPECT_FALSE(fault());
    EXPECT_EQ(captured_format, (std::array{48000U, 48U, 3U}));
}

TEST_F(Player, ConcurrentCallsAreSafeDuringStopsStartsAndFormatChanges) {
    panel->runs_by_itself = true;
    std::atomic<bool> calling{true};
    std::thread receiver([&] {
        for (std::uint64_t i = 0; calling; ++i) {
            push(48000, Levels(i % 2 == 0 ? 8 : 96, 0.5F));
            notice(i * 4);
            EXPECT_GT(player.capture_ratio(), 0.9);
        }
    });
    for (int run = 0; run < 30; ++run) {
        settings.block_size = run % 3 == 0 ? 48 : 4;
        settings.input_channel_map.resize(run % 2 == 0 ? 1 : 2, 1);
        EXPECT_TRUE(start(run % 4 < 2));
        EXPECT_TRUE(eventually([&] {
            const std::lock_guard guard(mutex);
            return !captured.empty();
        }));
        player.stop();
        captured.clear();
        reports.clear();
        advance_clock_ms(1000);
        platform::sleep_ms(1);
        EXPECT_TRUE(captured.empty() && reports.empty()) << "callback after the stop";
    }
    calling = false;
    receiver.join();
}

}  // namespace
}  // namespace tavistro::test
