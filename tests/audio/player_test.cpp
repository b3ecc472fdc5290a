// The player on a device whose periods the test calls, and on its virtual device with the real
// thread. The late callers are meant for the thread sanitizer as much as for the assertions.
#include "audio/asio_player.h"

#include <gtest/gtest.h>

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
        settings.target_queue_depth = 0;  // ratio 1.0
        reset_realtime_violations();
    }
    ~Player() override {
        player.stop();
        use_running_clock();
        EXPECT_EQ(realtime_violations().total(), 0U) << "in some period of this test";
    }
    bool start(bool loopback = false) {
        lines.clear();
        return (player.*(loopback ? &AsioPlayer::start_loopback : &AsioPlayer::start))(
            settings, [this](const std::string& line) { lines.push_back(line); },
            [this](auto, auto, auto, const Levels& samples) {
                const std::lock_guard guard(mutex);
                captured.push_back(samples);
            },
            [this](const PlayerTelemetry& report) { reports.push_back(report); });
    }
    void push(std::uint32_t sample_rate, const Levels& samples, std::uint64_t server_ns = 0,
              std::uint64_t delivery_ns = 0) {
        const auto frames = static_cast<std::uint16_t>(samples.size() / 2);
        player.push_block(0, sample_rate, frames, 2, samples, server_ns, 0, delivery_ns);
    }
    void wait_until(const std::function<bool()>& reached) {
        EXPECT_TRUE(eventually([&] {
            const std::lock_guard guard(mutex);
            return reached();
        }));
    }

    AudioDeviceSettings settings;
    std::shared_ptr<DevicePanel> panel = std::make_shared<DevicePanel>();
    std::mutex mutex;
    std::vector<std::string> lines;
    std::vector<Levels> captured;
    std::vector<PlayerTelemetry> reports;
    AsioPlayer player{
        [this] { return panel->exists ? std::make_unique<TestDevice>(panel) : nullptr; }};
};

TEST_F(Player, FailedStartsSayWhyAndLeaveNothingBehind) {
    using Map = std::vector<std::int32_t>;
    const auto expect_refusal = [&](const char* line, bool loopback = false) {
        EXPECT_FALSE(start(loopback));
        EXPECT_EQ(lines, std::vector<std::string>{line});
        EXPECT_EQ(panel.use_count(), 1) << "a device was left";
    };
    const std::tuple<Map, Map, const char*> maps[] = {
        {{0, 1, 1, -1}, {-1}, "[asio] output_channel_map contains duplicate hardware channels."},
        {{-1, 0, 0}, {0}, "[asio] output_channel_map contains a negative channel."},
        {{0}, {3, -2}, "[asio] input_channel_map contains a negative channel."},
        {{}, {5, 6, 5}, "[asio] input_channel_map contains duplicate hardware channels."},
        {{}, {}, "[asio] both output_channel_map and input_channel_map are empty."}};
    for (const auto& [outputs, inputs, line] : maps) {
        settings.output_channel_map = outputs;
        settings.input_channel_map = inputs;
        expect_refusal(line);
    }
    expect_refusal("[asio] loopback requires both output and input channel maps.", true);
    settings.sample_rate = 0;
    expect_refusal("[asio] loopback requires a non-zero sample rate and block size.", true);
    settings.output_channel_map = {0};
    panel->starts = false;
    expect_refusal("[audio] device start failed.");
    panel->refusals = 1;
    expect_refusal("[asio] test device does not open.");
    settings.max_queue_blocks = std::uint64_t{1} << 60;
    expect_refusal("[audio] not enough memory for the audio buffers.");
    panel->exists = false;
    expect_refusal("[asio] no ASIO device host.");
}

TEST_F(Player, PlaysWhatIsPushedAndHandsOutWhatIsCaptured) {
    ASSERT_TRUE(start());
    panel->input = 0.25F;
    push(48000, {0.5F, 0.5F, 0.5F, 0.5F, 1.0F, 1.0F, 1.0F, 1.0F});
    EXPECT_TRUE(captured.empty()) << "no period yet, not even the one during the opening";
    panel->period();
    EXPECT_EQ(panel->played, (std::vector{Levels(4, 0.5F), Levels(4, 1.0F)}));
    panel->period();
    EXPECT_TRUE(panel->played[0].empty()) << "silence when nothing is buffered";
    EXPECT_TRUE(captured.empty()) << "never on the device's thread";
    player.on_sync({});
    const Levels input{0.25F, 0.25F, 0.25F, 0.25F, 0.5F, 0.5F, 0.5F, 0.5F};
    EXPECT_EQ(captured, (std::vector{input, input}));

    for (int period = 0; period < 8; ++period)
        panel->period();
    player.on_sync({});
    EXPECT_EQ(captured.size(), 2U + 7U) << "the eighth found no room";
}

TEST_F(Player, ReportsOnceASecondWhatHappenedSince) {
    set_manual_clock();
    settings.target_queue_depth = 2;
    settings.prebuffer_blocks = 2;
    panel->rate_error = -0.1;
    panel->input = 0.5F;
    ASSERT_TRUE(start());
    panel->faulty = true;
    advance_clock_ms(999);
    const Levels samples{0.1F, -0.25F, 0.0F, 0.0F, 0.0F, 0.0F, 0.75F, 0.0F};
    push(48000, samples);  // not what the device runs at
    const std::uint64_t now = platform::nanosecond_clock();
    push(47999, samples, now - 40'000, now - 30'000);
    push(47999, samples, now - 25'000, now - 20'000);
    push(47999, samples, now + 1'000, now - 10'000);  // a clock ahead of ours
    for (int period = 0; period < 10; ++period)
        panel->period();
    advance_clock_ms(1);
    push(47999, samples);
    ASSERT_EQ(reports.size(), 1U);
    const PlayerTelemetry& t = reports.front();
    EXPECT_EQ(t.format_drops, 1U);
    EXPECT_EQ(t.output_ready_failures, 10U);
    EXPECT_EQ(t.actual_sample_rate, 47999U);
    EXPECT_EQ(t.queue_latency_last_us, 10U);
    EXPECT_EQ(t.queue_latency_max_us, 30U);
    EXPECT_EQ(t.server_to_output_last_us, 25U);
    EXPECT_EQ(t.input_peaks[1], 1000U);
    EXPECT_EQ(t.output_peaks[0], 250U);
    EXPECT_EQ(t.output_peaks[1], 750U);
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "[asio] recvBlocksPerSec=4 callbacksPerSec=10 dequeuedPerSec=3 "
                         "pll_ratio=1.000000 renderedFrames=28",
                         "[asio] playbackBuffer frames=4 blocks=1.00 ms=0.08 target_frames=8 "
                         "error_frames=-4.0 minFrames=4 maxFrames=12 underruns=3 overruns=0 "
                         "playbackDropped=1 captureDropped=3"}));

    ASSERT_TRUE(start());
    advance_clock_ms(1000);
    player.on_sync({});
    EXPECT_EQ(reports.back().callbacks_total + reports.back().playbackDropped, 0U);
}

TEST_F(Player, LoopsBackWithDuplicatesAndStopsInEveryWait) {
    settings.input_channel_map = {0, 1, 2};  // the third has no output
    settings.loopback_callback_duplicate_every = 1;
    settings.loopback_callback_duplicate_count = 2;
    settings.block_size = 48;
    ASSERT_TRUE(start(true));
    EXPECT_EQ(lines, std::vector<std::string>{"[asio] virtual loopback started."});
    Levels samples(96, 0.5F);
    for (const float level : {0.125F, 0.25F}) {
        samples[0] = level;
        push(48000, samples);
    }
    const auto first = [](const Levels& input) { return input[0]; };
    wait_until([&] { return std::ranges::count(captured, 0.25F, first) == 3; });
    player.stop();
    Levels levels;
    for (const auto& input : captured) {
        if (input[0] != 0.0F) levels.push_back(input[0]);
        EXPECT_EQ(input[48], input[0] == 0.0F ? 0.0F : 0.5F);
        EXPECT_EQ(input[96], 0.0F);
    }
    EXPECT_EQ(levels, (Levels{0.125F, 0.125F, 0.125F, 0.25F, 0.25F, 0.25F}));

    // A wait or stall that does not see the stop runs into the time limit of the test.
    captured.clear();
    settings.loopback_callback_stall_every_ms = 3'600'000;
    settings.loopback_callback_stall_duration_ms = 3'600'000;
    ASSERT_TRUE(start(true));
    platform::sleep_ms(20);
    settings.block_size = 65535;
    settings.sample_rate = 1;
    ASSERT_TRUE(start(true));
    player.stop();
    EXPECT_TRUE(captured.empty());
}

TEST_F(Player, LateCallersAreHarmlessAcrossStopsStartsAndFormatChanges) {
    panel->runs_by_itself = true;
    std::atomic<bool> calling{true};
    std::thread receiver([&] {
        for (std::uint64_t i = 0; calling; ++i) {
            push(48000, Levels(i % 2 == 0 ? 8 : 96, 0.5F));
            player.on_sync({.server_frame_position = i * 4});
            EXPECT_GT(player.capture_ratio(), 0.9);
        }
    });
    for (int run = 0; run < 30; ++run) {
        settings.block_size = run % 3 == 0 ? 48 : 4;
        settings.input_channel_map.resize(run % 2 == 0 ? 1 : 2, 1);
        EXPECT_TRUE(start(run % 4 < 2));
        wait_until([&] { return !captured.empty(); });
        player.stop();
        captured.clear();
        reports.clear();
        advance_clock_ms(1000);
        platform::sleep_ms(1);
        EXPECT_TRUE(captured.empty() && reports.empty()) << "called back after the stop";
    }
    calling = false;
    receiver.join();
}

}  // namespace
}  // namespace tavistro::test
