// The main road: audio from the server to the device and back, whatever its format.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "scenarios/rig.h"
#include "tavistro/stats_block.h"
#include "tools/host/stats_reader.h"

namespace tavistro::test {
namespace {

using server::ReferenceServer;
using server::ServerOptions;

struct Width {
    const char* name;
    std::size_t channels;
    std::uint32_t sample_rate;
    std::uint16_t block_frames;
    friend void PrintTo(const Width& width, std::ostream* out) { *out << width.name; }
};

std::string channel_list(std::size_t first, std::size_t count) {
    std::string list;
    for (std::size_t i = 0; i < count; ++i)
        list += std::to_string(first + i) + ",";
    return list;
}

// Channels 0 to n-1 go out; the client returns them on n to 2n-1 (or on themselves with all 32).
std::string channel_settings(std::size_t channels) {
    const std::size_t first_input = 2 * channels <= 32 ? channels : 0;
    return "[tavistro]\ndriver_outputs = " + channel_list(0, channels) +
           "\ndriver_inputs = " + channel_list(first_input, channels) +
           "\n[asio]\ninput_map = " + channel_list(0, channels) +
           "\noutput_map = " + channel_list(0, channels) + "\n";
}

double rms(const std::vector<server::HistoryBlock>& blocks) {
    double sum = 0;
    for (const auto& block : blocks) {
        for (const float sample : block.samples)
            sum += static_cast<double>(sample) * sample;
    }
    return std::sqrt(sum);
}

class Stream : public ::testing::TestWithParam<Width> {};

TEST_P(Stream, ComesBackAsItWasSent) {
    const std::size_t channels = GetParam().channels;
    const std::uint32_t sample_rate = GetParam().sample_rate;
    ServerOptions options{.port = 0, .format = {sample_rate, GetParam().block_frames}};
    // Each channel has a tune of its own strength, so that a swapped channel shows.
    for (std::size_t c = 0; c < channels; ++c) {
        options.melodies.push_back(
            {.channel = static_cast<std::uint32_t>(c), .level = 0.5F / static_cast<float>(1 + c)});
    }
    for (std::uint32_t c : {0U, static_cast<std::uint32_t>(channels - 1)}) {
        options.measures.push_back({c, c + static_cast<std::uint32_t>(channels)});
    }
    ReferenceServer server(options);
    ASSERT_EQ(server.start(), "");
    const ConfigFile config(server.port(), channel_settings(channels));
    Engine engine;
    ASSERT_TRUE(engine.start(config));

    // A machine under load plays with gaps; what counts here is that it is the same tune.
    const auto came_back = [&] {
        return std::ranges::all_of(server.snapshot().measures, [](const auto& measure) {
            return measure.report.correlation_max > 0.95;
        });
    };
    ASSERT_TRUE(eventually(came_back)) << "state " << engine.state().state;
    // A channel that came back in another's place would have the other's level.
    server.enable_history(256);
    ASSERT_TRUE(eventually([&] { return server.bus_history(0).size() == 256; }));
    for (const std::size_t c : {std::size_t{0}, channels - 1}) {
        EXPECT_NEAR(rms(server.bus_history(channels + c)) / rms(server.bus_history(c)), 1.0, 0.4);
    }

    const tavistro_engine_state state = engine.state();
    EXPECT_EQ(state.stream_sample_rate, sample_rate);
    EXPECT_EQ(state.stream_block_frames, GetParam().block_frames);
    EXPECT_EQ(state.device_sample_rate, sample_rate);
    EXPECT_EQ(state.client_id, config.client_id());
    EXPECT_EQ(state.output_meter_count, channels);
    EXPECT_TRUE(eventually([&] {
        const auto now = engine.state();
        return now.output_meters[0].peak_permille > 0 && now.input_meters[0].peak_permille > 0;
    }));
    engine.stop();
    EXPECT_TRUE(engine.in_state(TAVISTRO_STATE_STOPPED));
    EXPECT_TRUE(eventually([&] { return server.snapshot().clients.empty(); }))
        << "the client did not take its leave";
}

// Blocks of 10.7 ms, so that the pauses of a machine under load fit into the buffer. Many channels
// are slow ones: a datagram costs far more under Wine than it does on a real system.
INSTANTIATE_TEST_SUITE_P(Widths, Stream,
                         ::testing::Values(Width{"Stereo", 2, 48000, 512},
                                           Width{"SixteenChannels", 16, 12000, 128}),
                         [](const auto& param) { return param.param.name; });

TEST(StreamNumbers, ReachOtherProcessesThroughTheStatisticsBlock) {
    ReferenceServer server({.port = 0});
    ASSERT_EQ(server.start(), "");
    const ConfigFile config(server.port());
    Engine engine;
    ASSERT_TRUE(engine.start(config));
    ASSERT_TRUE(eventually([&] { return engine.runs(); }));

    host::StatsReader reader;
    ASSERT_TRUE(reader.open(config.client_id()));
    tavistro_stats_block block{};
    EXPECT_TRUE(eventually([&] {
        block = reader.read().value_or(tavistro_stats_block{});
        return block.state == TAVISTRO_STATE_RUNNING && block.rtt_samples > 0 &&
               block.sync_delay_samples > 0 && block.callbacks_per_sec > 0 &&
               block.client_recv_blocks_per_sec > 0 && block.rendered_frames > 0;
    }));
    EXPECT_EQ(block.client_id, config.client_id());
    EXPECT_EQ(block.stream_sample_rate, 48000U);
    EXPECT_EQ(block.target_frames, 6U * 128U);
    engine.stop();
    ASSERT_TRUE(reader.read());
    EXPECT_EQ(reader.read()->state, static_cast<std::uint32_t>(TAVISTRO_STATE_STOPPED))
        << "a reader keeps the last values";
}

TEST(StreamFormatChange, IsFollowedThereAndBackWhileRunning) {
    ReferenceServer server({.port = 0, .melodies = {{.channel = 0}}});
    ASSERT_EQ(server.start(), "");
    const ConfigFile config(server.port());
    Engine engine;
    ASSERT_TRUE(engine.start(config));
    ASSERT_TRUE(eventually([&] { return engine.runs(); }));
    ASSERT_TRUE(input_flows(server));

    struct Format {
        std::uint32_t rate;
        std::uint16_t frames;
    };
    for (const Format format : {Format{96000, 64}, Format{44100, 441}, Format{48000, 128}}) {
        ASSERT_TRUE(server.change_format(format.rate, format.frames));
        ASSERT_TRUE(eventually([&] {
            const auto state = engine.state();
            return state.state == TAVISTRO_STATE_RUNNING &&
                   state.stream_sample_rate == format.rate &&
                   state.device_block_frames == format.frames;
        })) << format.rate;
        EXPECT_TRUE(input_flows(server)) << "no audio at " << format.rate;
    }
    EXPECT_EQ(engine.state().error_code, 0U);
}

TEST(StreamUplink, AnswersEachNoticeWithOneBlock) {
    ReferenceServer server({.port = 0});
    ASSERT_EQ(server.start(), "");
    const ConfigFile config(server.port());
    Engine engine;
    ASSERT_TRUE(engine.start(config));
    ASSERT_TRUE(input_flows(server, 100));
    const auto before = server.snapshot();
    ASSERT_TRUE(input_flows(server, 400));
    const auto after = server.snapshot();
    const auto answered = after.input.complete - before.input.complete;
    const auto notices =
        after.clients.at(0).sync_blocks_sent - before.clients.at(0).sync_blocks_sent;
    // Both are counted at the block clock, some blocks of latency apart; a machine under load may
    // answer some too late.
    EXPECT_LE(answered, notices + 32);
    EXPECT_GE(2 * answered, notices) << "notices go unanswered";
    EXPECT_EQ(after.input.duplicates, 0U) << "a block was sent twice";
    EXPECT_EQ(after.input.mismatched, 0U);
    EXPECT_EQ(after.input.early, 0U);
}

}  // namespace
}  // namespace tavistro::test
