// Drivers that ask, hang, vanish or refuse: the engine says so and does what can be done.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <span>
#include <thread>
#include <vector>

#include "driver_test/driver_rig.h"
#include "platform/threads.h"
#include "support/movable_clock.h"

namespace tavistro::test {
namespace {

// Whether an engine shows something, however briefly.
class Watch {
  public:
    Watch(const Engine& engine, const Shown& wanted) {
        EXPECT_TRUE(thread_.start("watch", [this, &engine, wanted] {
            while (!ended_ && !seen_) {
                seen_ = shown(engine) == wanted;
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        }));
    }
    ~Watch() {
        ended_ = true;
        thread_.join();
    }
    bool seen() const { return seen_; }

  private:
    std::atomic<bool> seen_{false};
    std::atomic<bool> ended_{false};
    platform::Thread thread_;
};

/// kind, subject, attempt, error_code, message
using Happening = std::array<std::uint32_t, 5>;

std::vector<Happening> events(const Engine& engine) {
    const auto state = engine.state();
    std::vector<Happening> all;
    for (const auto& e : std::span(state.events, state.event_count))
        all.push_back({e.kind, e.subject, e.attempt, e.error_code, e.message});
    return all;
}

class Recovery : public ::testing::TestWithParam<const char*> {};

TEST_P(Recovery, IsShownAndBringsTheAudioBack) {
    const std::string command = GetParam();
    const bool stall = command == "stall";
    const std::uint32_t category =
        stall ? TAVISTRO_CATEGORY_DEVICE_STALL : TAVISTRO_CATEGORY_DEVICE_RESET;
    DriverRemote driver;
    Rig rig(with_tune, on_test_driver());
    const Engine& engine = rig.engine;
    ASSERT_TRUE(rig.plays());
    driver.set("rate", "44100");  // for a changed rate
    const Watch warning(engine, {TAVISTRO_LEVEL_WARNING, category,
                                 stall ? TAVISTRO_MESSAGE_DEVICE_STALLED
                                       : TAVISTRO_MESSAGE_DEVICE_RESET_REQUESTED});
    const Watch recovered(engine, {TAVISTRO_LEVEL_HEALTHY, TAVISTRO_CATEGORY_ENGINE,
                                   TAVISTRO_MESSAGE_DEVICE_RECOVERED});
    // The warning stands until the worker looks, which may be at once: try until it was seen.
    for (std::uint64_t next = 4; next == 4 || (!warning.seen() && next < 100); next += 3) {
        driver.fire(command);
        ASSERT_TRUE(soon([&] { return engine.state().next_event_sequence == next; }));
        // A driver that never called is not known to have stalled.
        const std::int64_t periods = driver.count("periods");
        ASSERT_TRUE(eventually([&] { return engine.runs() && driver.count("periods") > periods; }));
    }
    EXPECT_TRUE(warning.seen());
    EXPECT_TRUE(eventually([&] { return recovered.seen(); })) << "stands until time passes";
    EXPECT_EQ(events(engine).back(), (Happening{TAVISTRO_EVENT_RECOVERED, category, 1, 0,
                                                TAVISTRO_MESSAGE_EVENT_DEVICE_RECOVERED}));
    advance_clock_ms(1000);  // to the next report
    // "running normally", or what a machine under load has done to the buffer since.
    EXPECT_TRUE(eventually([&] { return !engine.shows(TAVISTRO_MESSAGE_DEVICE_RECOVERED); }));
    EXPECT_TRUE(engine.runs());
    EXPECT_TRUE(rig.sounds(2));
    EXPECT_EQ(engine.state().error_code, 0U);
    EXPECT_EQ(driver.count("objects"), 1);
}

INSTANTIATE_TEST_SUITE_P(Troubles, Recovery,
                         ::testing::Values("reset", "resync", "rate_changed", "stall"),
                         [](const auto& param) { return std::string(param.param); });

TEST(DriverTrouble, ADriverThatVanishesEndsTheRunAfterThreeRecoveries) {
    DriverRemote driver;
    Rig rig({}, on_test_driver());
    ASSERT_TRUE(rig.plays());
    driver.fire("vanish");
    ASSERT_TRUE(soon([&] { return rig.engine.in_state(TAVISTRO_STATE_FAILED); }));
    EXPECT_EQ(
        events(rig.engine).back(),
        (Happening{TAVISTRO_EVENT_GAVE_UP, TAVISTRO_CATEGORY_DEVICE_STALL, 3,
                   TAVISTRO_ERROR_AUDIO_DEVICE_FAILED, TAVISTRO_MESSAGE_EVENT_RECOVERY_GAVE_UP}));
    rig.engine.stop();
    EXPECT_EQ(driver.count("objects"), 0);
}

TEST(DriverTrouble, ResetsAmidFormatChangesEndInTheLastFormat) {
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

TEST(DriverTrouble, AStopWaitsForADriverThatIsLongInInit) {
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
