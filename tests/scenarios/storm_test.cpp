// Servers that change everything at once and without end. The engine follows, or waits for better
// times, and the next run works.

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "scenarios/rig.h"

namespace tavistro::test {
namespace {

TEST(Storm, FormatsThatChangeTwentyTimesASecondAreFollowedToTheLast) {
    constexpr int changes = 40;
    Rig rig;
    ASSERT_TRUE(rig.plays());
    for (const bool stop_amid : {true, false}) {
        for (int i = 0; i < changes; ++i) {
            const bool even = i % 2 == 0;
            ASSERT_TRUE(rig.server.change_format(even ? 96000 : 44100, even ? 512 : 64));
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            const std::uint32_t state = rig.engine.state().state;
            EXPECT_TRUE(state == TAVISTRO_STATE_RUNNING || state == TAVISTRO_STATE_RESTARTING);
        }
        if (!stop_amid) continue;
        rig.engine.stop();
        EXPECT_TRUE(rig.engine.in_state(TAVISTRO_STATE_STOPPED));
        ASSERT_TRUE(rig.engine.start(rig.config));
        ASSERT_TRUE(rig.plays());
    }
    for (const auto& [rate, frames] :
         {server::StreamFormat{96000, 64}, {44100, 441}, {48000, 128}}) {
        ASSERT_TRUE(rig.server.change_format(rate, frames));
        EXPECT_TRUE(eventually([&] { return rig.engine.runs_at(rate, frames); })) << rate;
        EXPECT_TRUE(input_flows(rig.server)) << "no audio at " << rate;
    }
    EXPECT_EQ(rig.engine.state().error_code, 0U);
}

TEST(Storm, ClocksThatJumpAnHourAndThirteenThousandBlocksASecondCostNoSession) {
    Rig rig({.first_sequence = 0xFFFFFF00});
    ASSERT_TRUE(rig.plays());
    for (const std::int64_t ms : {3'600'000, -3'600'000, 0}) {
        rig.server.set_faults({.clock_offset_ms = ms});
        EXPECT_TRUE(input_flows(rig.server)) << ms;
    }
    ASSERT_TRUE(rig.server.change_format(384000, 30));
    EXPECT_FALSE(rig.server.change_format(48000, 0));
    std::this_thread::sleep_for(std::chrono::seconds(1));
    ASSERT_TRUE(rig.server.change_format(48000, 128));
    EXPECT_TRUE(input_flows(rig.server, 600));
    EXPECT_LT(rig.server.snapshot().next_sequence, 0x80000000) << "the numbers have wrapped";
    EXPECT_TRUE(rig.engine.runs());
    EXPECT_EQ(rig.engine.state().error_code, 0U);
}

}  // namespace
}  // namespace tavistro::test
