// Drivers that ask, hang, vanish or refuse: the engine says so and does what can be done.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <optional>
#include <span>
#include <thread>
#include <vector>

#include "driver_test/driver_rig.h"
#include "platform/threads.h"
#include "support/movable_clock.h"

namespace tavistro::test {
namespace {

using server::ReferenceServer;

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

class OnTestDriver : public ::testing::Test {
  protected:
    void start(const std::string& more = {}) {
        ASSERT_EQ(server.start(), "");
        config.emplace(server.port(), on_test_driver(more));
        ASSERT_TRUE(engine.start(*config));
    }
    void start_running() {
        ASSERT_NO_FATAL_FAILURE(start());
        ASSERT_TRUE(eventually([&] { return engine.runs() && input_flows(server); }));
    }
    bool tune_comes_back() {
        server.enable_history(0);
        server.enable_history(8);
        return eventually([&] {
            const auto blocks = server.bus_history(2);
            return blocks.size() == 8 &&
                   std::ranges::any_of(blocks.back().samples,
                                       [](float sample) { return sample > 0.01F; });
        });
    }

    DriverRemote driver;
    ReferenceServer server{{.port = 0, .melodies = {{.channel = 0}}}};
    std::optional<ConfigFile> config;
    Engine engine;
};

class Recovery : public OnTestDriver, public ::testing::WithParamInterface<const char*> {};

TEST_P(Recovery, IsShownAndBringsTheAudioBack) {
    const std::string command = GetParam();
    const bool stall = command == "stall";
    const std::uint32_t category =
        stall ? TAVISTRO_CATEGORY_DEVICE_STALL : TAVISTRO_CATEGORY_DEVICE_RESET;
    ASSERT_NO_FATAL_FAILURE(start_running());
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
    EXPECT_TRUE(tune_comes_back());
    EXPECT_EQ(engine.state().error_code, 0U);
    EXPECT_EQ(driver.count("objects"), 1);
}

INSTANTIATE_TEST_SUITE_P(Troubles, Recovery,
                         ::testing::Values("reset", "resync", "rate_changed", "stall"),
                         [](const auto& param) { return std::string(param.param); });

TEST_F(OnTestDriver, ThreeRecoveriesThatFailEndTheRun) {
    ASSERT_NO_FATAL_FAILURE(start_running());
    driver.fire("vanish");
    ASSERT_TRUE(soon([&] { return engine.in_state(TAVISTRO_STATE_FAILED); }));
    const auto all = events(engine);
    EXPECT_EQ(all.size(), 8U) << "a request, three attempts that fail, the end";
    EXPECT_EQ(all.back(), (Happening{TAVISTRO_EVENT_GAVE_UP, TAVISTRO_CATEGORY_DEVICE_STALL, 3,
                                     TAVISTRO_ERROR_AUDIO_DEVICE_FAILED,
                                     TAVISTRO_MESSAGE_EVENT_RECOVERY_GAVE_UP}));
    EXPECT_EQ(engine.state().error_code, TAVISTRO_ERROR_AUDIO_DEVICE_FAILED);
    EXPECT_EQ(engine.state().error_detail, TAVISTRO_MESSAGE_RECOVERY_GAVE_UP);
    engine.stop();
    EXPECT_TRUE(engine.in_state(TAVISTRO_STATE_FAILED));
    EXPECT_EQ(driver.count("objects"), 0);
}

TEST_F(OnTestDriver, StartAttemptsAreTwelveUnlessTheHostStops) {
    driver.set("fail", "init");
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_TRUE(eventually([&] { return engine.shows(TAVISTRO_MESSAGE_ASIO_RETRY_WAIT); }));
    engine.stop();
    EXPECT_TRUE(engine.in_state(TAVISTRO_STATE_STOPPED));
    EXPECT_EQ(engine.state().error_code, 0U);

    const std::int64_t inits = driver.count("init");
    ASSERT_TRUE(engine.start(*config));
    ASSERT_TRUE(soon([&] { return engine.in_state(TAVISTRO_STATE_FAILED); }));
    EXPECT_EQ(driver.count("init") - inits, 12);
    EXPECT_EQ(engine.state().error_detail, TAVISTRO_MESSAGE_ASIO_FAILED);
    EXPECT_EQ(driver.count("objects"), 0);
}

TEST_F(OnTestDriver, AnotherRateThanTheStreamsIsShown) {
    driver.set("rate", "44100");
    driver.set("fixed_rate", "1");
    ASSERT_NO_FATAL_FAILURE(start());
    EXPECT_TRUE(soon([&] {
        return shown(engine) == Shown{TAVISTRO_LEVEL_WARNING,
                                      TAVISTRO_CATEGORY_SAMPLE_RATE_MISMATCH,
                                      TAVISTRO_MESSAGE_SAMPLE_RATE_DIFFERS};
    }));
    EXPECT_EQ(engine.state().device_sample_rate, 44100U);
    EXPECT_TRUE(engine.runs());
}

TEST_F(OnTestDriver, ResetsAmidFormatChangesEndInTheLastFormat) {
    constexpr int changes = 41;
    ASSERT_NO_FATAL_FAILURE(start_running());
    for (int i = 0; i < changes; ++i) {
        ASSERT_TRUE(server.change_format(i % 2 == 0 ? 96000 : 48000, i % 2 == 0 ? 256 : 128));
        if (i % 3 != 0) driver.fire(i % 3 == 1 ? "reset" : "rate_changed");
        std::this_thread::sleep_for(std::chrono::milliseconds(i % 2 == 0 ? 50 : 130));
    }
    EXPECT_TRUE(soon([&] {
        const auto state = engine.state();
        return state.state == TAVISTRO_STATE_RUNNING && state.device_sample_rate == 96000 &&
               state.device_block_frames == 256;
    }));
    EXPECT_TRUE(tune_comes_back());
    EXPECT_EQ(engine.state().error_code, 0U);
    EXPECT_EQ(driver.count("objects"), 1);
}

TEST_F(OnTestDriver, AStopWaitsForADriverThatIsLongInInit) {
    driver.set("init_delay_ms", "300");
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_TRUE(eventually([&] { return driver.count("init") == 1; }));
    engine.stop();
    EXPECT_TRUE(engine.in_state(TAVISTRO_STATE_STOPPED));
    EXPECT_EQ(driver.count("objects"), 0);
    EXPECT_EQ(driver.count("init"), 1);
}

}  // namespace
}  // namespace tavistro::test
