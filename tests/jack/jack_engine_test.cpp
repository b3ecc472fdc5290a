// A whole engine on JACK, whose server changes its period.

#include <gtest/gtest.h>

#include "jack/jack_server.h"
#include "scenarios/rig.h"

namespace tavistro::test {
namespace {

// The engine opens a driver at the stream's block size, and JACK has one size at a time.
TEST(JackEngine, PlaysWhileThePeriodIsTheStreams) {
    JackServer jack;
    Rig rig{with_tune, "loopback_device = 0\n[asio]\ndriver_name = JACK\n"};
    // Its tune comes back through a cable from the engine's first output to its first input.
    const auto plays_with = [&](std::uint32_t frames) {
        if (!eventually([&] { return rig.engine.runs_at(48000, frames); })) return false;
        jack_connect(open_jack_client().get(), "tavistro:out_1", "tavistro:in_1");
        return rig.sounds(2);
    };
    ASSERT_TRUE(plays_with(128)) << "state " << rig.engine.state().state;
    ASSERT_EQ(jack_set_buffer_size(open_jack_client().get(), 256), 0);
    ASSERT_TRUE(eventually([&] { return rig.engine.in_state(TAVISTRO_STATE_FAILED); }));
    rig.engine.stop();
    ASSERT_TRUE(rig.server.change_format(48000, 256));
    ASSERT_TRUE(rig.engine.start(rig.config));
    EXPECT_TRUE(plays_with(256)) << "state " << rig.engine.state().state;
}

}  // namespace
}  // namespace tavistro::test
