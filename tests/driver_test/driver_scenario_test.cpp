// Complete engines with a driver that requests resets, stalls, vanishes or is slow.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>

#include "driver_test/driver_remote.h"
#include "scenarios/rig.h"
#include "support/movable_clock.h"

namespace tavistro::test {
namespace {

constexpr const char* on_test_driver =
    "loopback_device = 0\n[asio]\ndriver_name = Tavistro Test Driver\n";

/// Like eventually(), but time passes about ten times as fast for engine and server. The driver
/// uses real time.
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
    const auto& last = state.events[std::max(state.event_count, 1U) - 1];
    return {last.kind, last.subject, last.attempt, last.error_code, last.message};
}

TEST(Driver, RecoversFromResetResyncRateChangeAndStall) {
    for (const char* command : {"reset", "resync", "rate_changed", "stall"}) {
        SCOPED_TRACE(command);
        DriverRemote driver;
        Rig rig(with_tune, on_test_driver);
        ASSERT_TRUE(rig.plays());
        driver.set("rate", "44100");  // for rate_changed
        driver.fire(command);
        ASSERT_TRUE(soon([&] { return rig.engine.state().next_event_sequence == 4; }));
        EXPECT_EQ(last_event(rig.engine),
                  (Happening{TAVISTRO_EVENT_RECOVERED,
                             command == std::string("stall") ? TAVISTRO_CATEGORY_DEVICE_STALL
                                                             : TAVISTRO_CATEGORY_DEVICE_RESET,
                             1, 0, TAVISTRO_MESSAGE_EVENT_DEVICE_RECOVERED}));
        EXPECT_TRUE(rig.sounds(2) && rig.engine.runs());
        EXPECT_EQ(rig.engine.state().error_code, 0U);
        EXPECT_EQ(driver.count("objects"), 1);
    }
}

TEST(Driver, VanishedDriverEndsTheRunAfterThreeRecoveryAttempts) {
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

TEST(Driver, StopWaitsForASlowDriverInit) {
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
