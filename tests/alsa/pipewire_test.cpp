// ALSA's default device when it is PipeWire, in a complete engine.

#include "support/pipewire_server.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "scenarios/rig.h"

namespace tavistro::test {
namespace {

TEST(AlsaEngine, PlaysThroughPipeWire) {
    const PipeWireServer pipewire(TAVISTRO_PIPEWIRE_CONFIG);
    setenv("ALSA_CONFIG_PATH", TAVISTRO_ALSA_CONFIG, 1);  // NOLINT(concurrency-mt-unsafe)
    Rig rig{with_tune, "loopback_device = 0\n[asio]\ndriver_name = ALSA\n"};
    ASSERT_TRUE(eventually([&] { return rig.engine.runs_at(48000, 128); }));
    EXPECT_TRUE(PipeWireServer::connect("sink:monitor_FL", "source:input_FL"));
    EXPECT_TRUE(rig.sounds(2)) << "state " << rig.engine.state().state;
}

}  // namespace
}  // namespace tavistro::test
