// Audio from the server to the device and back, in several formats.

#include <gtest/gtest.h>

#include <algorithm>

#include "scenarios/rig.h"

namespace tavistro::test {
namespace {

// Channels in between are silent, so swapped channels are detected.
void expect_to_come_back_as_sent(std::uint32_t channels, const server::StreamFormat& format) {
    const std::uint32_t last = channels - 1;
    Rig rig({.format = format,
             .melodies = {{.channel = 0}, {.channel = last, .level = 0.125F}},
             .measures = {{0, channels}, {last, channels + last}}},
            "[tavistro]\ndriver_outputs = " + channel_list(0, channels) +
                "\ndriver_inputs = " + channel_list(channels, channels) + "\n[asio]\ninput_map = " +
                channel_list(0, channels) + "\noutput_map = " + channel_list(0, channels) + "\n");
    // A machine under load plays with gaps; only the tune must be the same.
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
        << "no leave message";
}

// Blocks of 10.7 ms: the buffer covers the pauses of a machine under load. Many channels have a low
// rate: under Wine a datagram costs far more than on Windows.
TEST(Stream, TwoChannelsComeBackUnchanged) {
    expect_to_come_back_as_sent(2, {48000, 512});
}
TEST(Stream, SixteenChannelsComeBackUnchanged) {
    expect_to_come_back_as_sent(16, {12000, 128});
}

}  // namespace
}  // namespace tavistro::test
