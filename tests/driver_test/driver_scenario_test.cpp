// Whole engines on a driver: when it asks, hangs, vanishes or takes its time, the engine says so
// and does what can be done.

#include <gtest/gtest.h>

#include <array>

#include "driver_test/driver_remote.h"
#include "scenarios/rig.h"
#include "support/movable_clock.h"

namespace tavistro::test {
namespace {

constexpr const char* on_test_driver =
    "loopback_device = 0\n[asio]\ndriver_name = Tavistro Test Driver\n";

/// Like eventually(), but time passes about ten times as fast for engine and server. The driver's
/// clock is its own.
bool soon(const std::function<bool()>& condition) {
    int polls = 0;  // of about 2 ms each
    return eventually([&] {
        if (++polls % 20 == 0) advance_clock_ms(400);
        return condition();
    });
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
    Rig rig(with_tune, on_test_driver);
    ASSERT_TRUE(rig.plays());
    driver.set("rate", "44100");  // for a changed rate
    driver.fire(command.c_str());
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
    Rig rig({}, on_test_driver);
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
    DriverRemote driver;
    Rig rig(with_tune, on_test_driver);
    ASSERT_TRUE(rig.plays());
    for (int i = 0; i < 15; ++i) {
        const bool even = i % 2 == 0;
        const auto opened = driver.count("init");
        ASSERT_TRUE(rig.server.change_format(even ? 96000 : 48000, even ? 256 : 128));
        // Sometimes in the middle of the change, sometimes with the new format.
        ASSERT_TRUE(i % 3 != 0 || soon([&] { return driver.count("init") > opened; }));
        driver.fire(even ? "reset" : "rate_changed");
    }
    EXPECT_TRUE(soon([&] { return rig.engine.runs_at(96000, 256); }));
    EXPECT_TRUE(rig.sounds(2));
    EXPECT_EQ(rig.engine.state().error_code, 0U);
    EXPECT_EQ(driver.count("objects"), 1);
}

TEST(Driver, AStopWaitsForADriverThatIsLongInInit) {
    DriverRemote driver;
    driver.set("init_delay_ms", "300");
    Rig rig({}, on_test_driver);
    ASSERT_TRUE(eventually([&] { return driver.count("init") == 1; }));
    rig.engine.stop();
    EXPECT_TRUE(rig.engine.in_state(TAVISTRO_STATE_STOPPED));
    EXPECT_EQ(driver.count("objects"), 0);
    EXPECT_EQ(driver.count("init"), 1);
}

}  // namespace
}  // namespace tavistro::test
