// Whole engines on a driver: what comes back is what was sent, channel by channel; and when a
// driver asks, hangs, vanishes or refuses, the engine says so and does what can be done.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <thread>
#include <vector>

#include "driver_test/driver_rig.h"

namespace tavistro::test {
namespace {

std::string list(const std::vector<int>& numbers) {
    std::string text;
    for (const int number : numbers)
        text += std::to_string(number) + ",";
    text.pop_back();
    return text;
}

/// Bits of the integer in a sample type, 0 for floating point.
int bits_of(int type) {
    constexpr int bits[16]{16, 24, 32, 0, 0, 0, 0, 0, 16, 18, 20, 24};
    return bits[type % 16];
}

// Each sample type has an input with a level of its own, which the server sends to the output of
// the same type; that comes back, converted by the driver's own arithmetic, as 32-bit float.
TEST(Driver, LevelsComeBackWithinOneStepOfTheSampleType) {
    const std::vector types{0, 1, 2, 3, 4, 8, 9, 10, 11, 16, 18, 20, 24, 25, 26, 27};
    std::vector<int> input_types = types;
    input_types.resize(2 * types.size(), 19);
    const std::string inputs = channel_list(0, input_types.size());
    const std::string outputs = channel_list(0, types.size());
    DriverRemote driver;
    driver.set("inputs", std::to_string(input_types.size()));
    driver.set("outputs", std::to_string(types.size()));
    driver.set("input_types", list(input_types));
    driver.set("output_types", list(types));
    driver.set("input_level", "-0.9");
    driver.set("loop_offset", std::to_string(types.size()));
    // A block in one datagram: under Wine each costs far more than its samples do.
    Rig rig({.format = {48000, 256}, .udp_payload_bytes = 65507},
            on_test_driver("input_map = " + inputs + "\noutput_map = " + outputs +
                           "\n[tavistro]\ndriver_inputs = " + inputs + "\ndriver_outputs = " +
                           outputs + "\n[transport]\nudp_payload_bytes = 65507\n"));
    ASSERT_TRUE(rig.plays());
    rig.server.enable_history(8);
    for (std::size_t i = 0; i < types.size(); ++i) {
        SCOPED_TRACE(types[i]);
        const int bits = bits_of(types[i]);
        const double step = bits == 0 ? 0 : 1.0 / (std::ldexp(1.0, bits - 1) - 1);
        const double level = static_cast<float>(-0.9 / static_cast<double>(i + 1));
        const auto holds = [&](std::size_t channel, double tolerance) {
            const auto near = [&](float sample) { return std::abs(sample - level) <= tolerance; };
            const auto blocks = rig.server.bus_history(channel);
            return blocks.size() == 8 && std::ranges::all_of(blocks, [&](const auto& block) {
                       return std::ranges::all_of(block.samples, near);
                   });
        };
        // The driver rounds to the nearest step; the level is a float and has steps as well.
        const double rounding = bits == 0 ? 0 : step / 2 + 1e-7;
        EXPECT_TRUE(eventually([&] { return holds(i, rounding); }));
        EXPECT_TRUE(eventually([&] { return holds(i + types.size(), rounding + step); }));
    }
}

TEST(Driver, BadMannersAndAClockOfItsOwnCostNoRestart) {
    DriverRemote driver;
    for (const char* manner :
         {"callback_in_create", "callback_in_start", "callback_in_stop", "noise", "foreign_thread"})
        driver.set(manner, "1");
    for (const char* service : {"time_info", "output_ready"})
        driver.set(service, "0");
    driver.set("ppm", "200");
    // Periods long enough for a driver that makes a thread for each.
    Rig rig({.format = {48000, 512}, .melodies = {{.channel = 0}}},
            on_test_driver("[latency]\nclient_latency_blocks = 16\n"));
    ASSERT_TRUE(rig.plays());
    for (const char* command : {"bad_index", "repeat_rate", "overload"})
        driver.fire(command);
    EXPECT_TRUE(rig.sounds(2));
    EXPECT_TRUE(rig.engine.runs());
    EXPECT_EQ(rig.engine.state().event_count, 0U) << "nothing that asks for a restart";
    rig.engine.stop();
    EXPECT_EQ(driver.count("objects"), 0);
}

/// kind, subject, attempt, error_code, message
using Happening = std::array<std::uint32_t, 5>;

Happening last_event(const Engine& engine) {
    const auto state = engine.state();
    EXPECT_GT(state.event_count, 0U);
    const auto& last = state.events[state.event_count == 0 ? 0 : state.event_count - 1];
    return {last.kind, last.subject, last.attempt, last.error_code, last.message};
}

class Recovery : public ::testing::TestWithParam<const char*> {};

TEST_P(Recovery, BringsTheAudioBack) {
    const std::string command = GetParam();
    DriverRemote driver;
    Rig rig(with_tune, on_test_driver());
    ASSERT_TRUE(rig.plays());
    driver.set("rate", "44100");  // for a changed rate
    driver.fire(command);
    ASSERT_TRUE(soon([&] { return rig.engine.state().next_event_sequence == 4; }));
    EXPECT_EQ(last_event(rig.engine),
              (Happening{TAVISTRO_EVENT_RECOVERED,
                         command == "stall" ? TAVISTRO_CATEGORY_DEVICE_STALL
                                            : TAVISTRO_CATEGORY_DEVICE_RESET,
                         1, 0, TAVISTRO_MESSAGE_EVENT_DEVICE_RECOVERED}));
    EXPECT_TRUE(rig.sounds(2));
    EXPECT_TRUE(rig.engine.runs());
    EXPECT_EQ(rig.engine.state().error_code, 0U);
    EXPECT_EQ(driver.count("objects"), 1);
}

INSTANTIATE_TEST_SUITE_P(Troubles, Recovery,
                         ::testing::Values("reset", "resync", "rate_changed", "stall"),
                         [](const auto& param) { return std::string(param.param); });

TEST(Driver, ADriverThatVanishesEndsTheRunAfterThreeRecoveries) {
    DriverRemote driver;
    Rig rig({}, on_test_driver());
    ASSERT_TRUE(rig.plays());
    driver.fire("vanish");
    ASSERT_TRUE(soon([&] { return rig.engine.in_state(TAVISTRO_STATE_FAILED); }));
    EXPECT_EQ(
        last_event(rig.engine),
        (Happening{TAVISTRO_EVENT_GAVE_UP, TAVISTRO_CATEGORY_DEVICE_STALL, 3,
                   TAVISTRO_ERROR_AUDIO_DEVICE_FAILED, TAVISTRO_MESSAGE_EVENT_RECOVERY_GAVE_UP}));
    rig.engine.stop();
    EXPECT_EQ(driver.count("objects"), 0);
}

TEST(Driver, ResetsAmidFormatChangesEndInTheLastFormat) {
    constexpr int changes = 41;
    DriverRemote driver;
    Rig rig(with_tune, on_test_driver());
    ASSERT_TRUE(rig.plays());
    for (int i = 0; i < changes; ++i) {
        const bool even = i % 2 == 0;
        ASSERT_TRUE(rig.server.change_format(even ? 96000 : 48000, even ? 256 : 128));
        if (i % 3 != 0) driver.fire(i % 3 == 1 ? "reset" : "rate_changed");
        std::this_thread::sleep_for(std::chrono::milliseconds(even ? 50 : 130));
    }
    EXPECT_TRUE(soon([&] { return rig.engine.runs_at(96000, 256); }));
    EXPECT_TRUE(rig.sounds(2));
    EXPECT_EQ(rig.engine.state().error_code, 0U);
    EXPECT_EQ(driver.count("objects"), 1);
}

TEST(Driver, AStopWaitsForADriverThatIsLongInInit) {
    DriverRemote driver;
    driver.set("init_delay_ms", "300");
    Rig rig({}, on_test_driver());
    ASSERT_TRUE(eventually([&] { return driver.count("init") == 1; }));
    rig.engine.stop();
    EXPECT_TRUE(rig.engine.in_state(TAVISTRO_STATE_STOPPED));
    EXPECT_EQ(driver.count("objects"), 0);
    EXPECT_EQ(driver.count("init"), 1);
}

}  // namespace
}  // namespace tavistro::test
