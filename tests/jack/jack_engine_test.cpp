// A whole engine on JACK, whose server changes its period or dies.

#include <gtest/gtest.h>

#include <algorithm>

#include "jack/jack_server.h"
#include "scenarios/rig.h"

namespace tavistro::test {
namespace {

constexpr int most_tries = 5;

class JackEngine : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(runs_with(128));
        ASSERT_TRUE(tune_comes_back());
    }
    void set_period(jack_nframes_t frames) {
        ASSERT_EQ(jack_set_buffer_size(open_jack_client().get(), frames), 0);
    }
    bool runs_with(std::uint32_t frames) {
        return eventually([&] { return rig.engine.runs_at(48000, frames); });
    }
    /// The three recoveries are over within two seconds: a machine under load may be too slow, and
    /// gets another run.
    template <typename Harm, typename Mend>
    void expect_recovery(const Harm& harm, const Mend& mend) {
        for (int tries = 1;; ++tries) {
            harm();
            ASSERT_TRUE(attempt_fails());
            mend();
            EXPECT_TRUE(eventually(
                [&] { return rig.engine.runs() || rig.engine.in_state(TAVISTRO_STATE_FAILED); }));
            if (rig.engine.runs()) break;
            ASSERT_LT(tries, most_tries);
            ASSERT_TRUE(rig.engine.start(rig.config));
            ASSERT_TRUE(runs_with(128));
        }
        EXPECT_TRUE(runs_with(128)) << "state " << rig.engine.state().state;
        EXPECT_TRUE(tune_comes_back());
    }
    /// One more recovery has been tried in vain since the last look.
    bool attempt_fails() {
        return eventually([&] {
            const auto state = rig.engine.state();
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
        return rig.sounds(2);
    }

    JackServer jack;
    Rig rig{with_tune, "loopback_device = 0\n[asio]\ndriver_name = JACK\n"};

  private:
    std::uint64_t seen_events_ = 0;
};

// The engine opens a driver at the stream's block size, and JACK has one size at a time.
TEST_F(JackEngine, PlaysWhileThePeriodIsTheStreams) {
    expect_recovery([&] { set_period(256); }, [&] { set_period(128); });
    rig.engine.stop();
    set_period(256);
    ASSERT_TRUE(rig.server.change_format(48000, 256));
    ASSERT_TRUE(rig.engine.start(rig.config));
    EXPECT_TRUE(runs_with(256)) << "state " << rig.engine.state().state;
    EXPECT_TRUE(tune_comes_back());
}

TEST_F(JackEngine, PlaysOnWhenADeadServerIsBack) {
    expect_recovery([&] { jack.kill(); }, [&] { jack.restart(); });
    rig.engine.stop();
    EXPECT_TRUE(rig.engine.in_state(TAVISTRO_STATE_STOPPED));
}

}  // namespace
}  // namespace tavistro::test
