// The main road: audio from the server to the device and back, whatever its format.

#include <gtest/gtest.h>

#include <algorithm>

#include "scenarios/rig.h"

namespace tavistro::test {
namespace {

// Channels in between are silent, and would be heard as such in the place of the first or last.
void expect_to_come_back_as_sent(std::uint32_t channels, const server::StreamFormat& format) {
    const std::uint32_t last = channels - 1;
    Rig rig({.format = format,
             .melodies = {{.channel = 0}, {.channel = last, .level = 0.125F}},
             .measures = {{0, channels}, {last, channels + last}}},
            "[tavistro]\ndriver_outputs = " + channel_list(0, channels) +
                "\ndriver_inputs = " + channel_list(channels, channels) + "\n[asio]\ninput_map = " +
                channel_list(0, channels) + "\noutput_map = " + channel_list(0, channels) + "\n");
    // A machine under load plays with gaps; what counts here is that it is the same tune.
    ASSERT_TRUE(eventually([&] {
        return std::ranges::all_of(rig.server.snapshot().measures, [](const auto& measure) {
            return measure.report.correlation_max > 0.95;
        });
    })) << "state "
        << rig.engine.state().state;
    EXPECT_TRUE(rig.engine.runs_at(format.sample_rate, format.frames));
    EXPECT_EQ(rig.engine.state().client_id, rig.config.client_id());
    EXPECT_TRUE(eventually([&] {
        const auto now = rig.engine.state();
        return now.output_meters[0].peak_permille > 0 && now.input_meters[0].peak_permille > 0;
    }));
    rig.engine.stop();
    EXPECT_TRUE(rig.engine.in_state(TAVISTRO_STATE_STOPPED));
    EXPECT_TRUE(eventually([&] { return rig.server.snapshot().clients.empty(); }))
        << "the client did not take its leave";
}

// Blocks of 10.7 ms, so that the pauses of a machine under load fit into the buffer. Many channels
// are slow ones: a datagram costs far more under Wine than it does on a real system.
TEST(Stream, OfTwoChannelsComesBackAsItWasSent) {
    expect_to_come_back_as_sent(2, {48000, 512});
}
TEST(Stream, OfSixteenChannelsComesBackAsItWasSent) {
    expect_to_come_back_as_sent(16, {12000, 128});
}

}  // namespace
}  // namespace tavistro::test
