// A whole engine on JACK, whose server changes its period or dies.

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

#include "jack/jack_server.h"
#include "scenarios/rig.h"

namespace tavistro::test {
namespace {

constexpr int most_tries = 5;

class JackEngine : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(server.start(), "");
        config.emplace(server.port(), "loopback_device = 0\n[asio]\ndriver_name = JACK\n");
        ASSERT_TRUE(engine.start(*config));
        ASSERT_TRUE(runs_with(128));
        ASSERT_TRUE(tune_comes_back());
    }
    void set_period(jack_nframes_t frames) {
        ASSERT_EQ(jack_set_buffer_size(open_jack_client().get(), frames), 0);
    }
    bool runs_with(std::uint32_t frames) {
        return eventually(
            [&] { return engine.runs() && engine.state().device_block_frames == frames; });
    }
    /// The three recoveries are over within two seconds: a machine under load may be too slow.
    bool recovers() {
        EXPECT_TRUE(
            eventually([&] { return engine.runs() || engine.in_state(TAVISTRO_STATE_FAILED); }));
        return engine.runs();
    }
    /// One more recovery has been tried in vain since the last look.
    bool attempt_fails() {
        return eventually([&] {
            const auto state = engine.state();
            const auto* end = state.events + state.event_count;
            const auto* failed = std::find_if(state.events, end, [&](const auto& event) {
                return event.kind == TAVISTRO_EVENT_ATTEMPT_FAILED &&
                       event.sequence >= seen_events_;
            });
            if (failed == end) return false;
            seen_events_ = state.next_event_sequence;
            return true;
        });
    }
    /// Through a cable from the engine's first output to its first input.
    bool tune_comes_back() {
        jack_connect(open_jack_client().get(), "tavistro:out_1", "tavistro:in_1");
        server.enable_history(0);
        server.enable_history(8);
        return eventually([&] {
            const auto blocks = server.bus_history(2);
            return blocks.size() == 8 &&
                   std::ranges::any_of(blocks.back().samples,
                                       [](float sample) { return sample > 0.01F; });
        });
    }

    JackServer jack;
    server::ReferenceServer server{{.port = 0, .melodies = {{.channel = 0}}}};
    std::optional<ConfigFile> config;
    Engine engine;

  private:
    std::uint64_t seen_events_ = 0;
};

// The engine opens a driver at the stream's block size, and JACK has one size at a time.
TEST_F(JackEngine, PlaysWhileThePeriodIsTheStreams) {
    for (int tries = 1;; ++tries) {
        set_period(256);
        ASSERT_TRUE(attempt_fails());
        set_period(128);
        if (recovers()) break;
        ASSERT_LT(tries, most_tries);
        ASSERT_TRUE(engine.start(*config));
        ASSERT_TRUE(runs_with(128));
    }
    EXPECT_TRUE(runs_with(128)) << "state " << engine.state().state;
    EXPECT_TRUE(tune_comes_back());

    engine.stop();
    set_period(256);
    ASSERT_TRUE(server.change_format(48000, 256));
    ASSERT_TRUE(engine.start(*config));
    EXPECT_TRUE(runs_with(256)) << "state " << engine.state().state;
    EXPECT_TRUE(tune_comes_back());
}

TEST_F(JackEngine, PlaysOnWhenADeadServerIsBack) {
    for (int tries = 1;; ++tries) {
        jack.kill();
        ASSERT_TRUE(attempt_fails());
        jack.restart();
        if (recovers()) break;
        ASSERT_LT(tries, most_tries);
        ASSERT_TRUE(engine.start(*config));
        ASSERT_TRUE(runs_with(128));
    }
    EXPECT_TRUE(runs_with(128)) << "state " << engine.state().state;
    EXPECT_TRUE(tune_comes_back());
    engine.stop();
    EXPECT_TRUE(engine.in_state(TAVISTRO_STATE_STOPPED));
}

}  // namespace
}  // namespace tavistro::test
