// Format changes, clock jumps, lost devices and restarts.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "scenarios/rig.h"
#include "support/movable_clock.h"

namespace tavistro::test {
namespace {

TEST(Trouble, TwentyFormatChangesPerSecondAreFollowed) {
    Rig rig;
    ASSERT_TRUE(rig.plays());
    for (int i = 0; i < 40; ++i) {
        const bool even = i % 2 == 0;
        ASSERT_TRUE(rig.server.change_format(even ? 96000 : 44100, even ? 512 : 64));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const std::uint32_t state = rig.engine.state().state;
        EXPECT_TRUE(state == TAVISTRO_STATE_RUNNING || state == TAVISTRO_STATE_RESTARTING);
    }
    for (const auto& format : {server::StreamFormat{96000, 64}, {44100, 441}, {48000, 128}}) {
        ASSERT_TRUE(rig.server.change_format(format.sample_rate, format.frames));
        EXPECT_TRUE(eventually([&] {
            return rig.engine.runs_at(format.sample_rate, format.frames);
        })) << format.sample_rate;
        EXPECT_TRUE(input_flows(rig.server)) << "no audio at " << format.sample_rate;
    }
    EXPECT_EQ(rig.engine.state().error_code, 0U);
}

TEST(Trouble, ClockJumpsAndThirteenThousandBlocksPerSecondKeepTheSession) {
    Rig rig({.first_sequence = 0xFFFFFF00});
    ASSERT_TRUE(rig.plays());
    for (const std::int64_t ms : {3'600'000, -3'600'000, 0}) {
        rig.server.set_faults({.clock_offset_ms = ms});
        EXPECT_TRUE(input_flows(rig.server)) << ms;
    }
    ASSERT_TRUE(rig.server.change_format(384000, 30));
    EXPECT_TRUE(eventually([&, before = rig.server.snapshot().blocks] {
        return rig.server.snapshot().blocks >= before + 12'800;
    }));
    ASSERT_TRUE(rig.server.change_format(48000, 128));
    EXPECT_TRUE(eventually([&] { return rig.engine.runs_at(48000, 128); }));
    EXPECT_TRUE(input_flows(rig.server));
    EXPECT_LT(rig.server.snapshot().next_sequence, 0x80000000) << "the sequence must wrap";
    EXPECT_EQ(rig.engine.state().error_code, 0U);
}

TEST(Trouble, LostLoopbackDeviceIsReportedWhileAudioContinues) {
    Rig rig({},
            "loopback_device_lost_after_ms = 1\n"
            "loopback_device_lost_duration_ms = 2500\n");
    EXPECT_TRUE(
        eventually([&] { return rig.engine.shows(TAVISTRO_MESSAGE_DEVICE_RESET_REQUESTED); }));
    EXPECT_TRUE(rig.engine.runs());
    EXPECT_EQ(rig.engine.state().event_count, 0U) << "the loopback device is not recovered";
    EXPECT_TRUE(input_flows(rig.server));
    EXPECT_TRUE(eventually([&] {
        advance_clock_ms(20);
        return !rig.engine.shows(TAVISTRO_MESSAGE_DEVICE_RESET_REQUESTED);
    }));
}

std::size_t entries(const char* folder) {
    const std::filesystem::directory_iterator all(folder);
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

TEST(Trouble, RepeatedStartsLeakNoThreadsAndNoDescriptors) {
    Rig rig;
    ASSERT_TRUE(rig.plays());
    rig.engine.stop();
    // The system may keep resources that the first run has opened.
    const std::size_t threads = entries("/proc/self/task");
    const std::size_t descriptors = entries("/proc/self/fd");
    for (int run = 0; run < 10; ++run) {
        ASSERT_TRUE(rig.engine.start(rig.config));
        ASSERT_TRUE(eventually([&] { return rig.engine.runs(); }));
        rig.engine.stop();
        ASSERT_EQ(entries("/proc/self/fd"), descriptors) << run;
        // The system may still list a thread shortly after it was joined.
        ASSERT_TRUE(eventually([&] { return entries("/proc/self/task") == threads; })) << run;
    }
}

}  // namespace
}  // namespace tavistro::test
