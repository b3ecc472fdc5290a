// The engine writes on one side; the test reads as another process would, through a mapping of its
// own.
#include "engine/stats_block.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <cstring>
#include <numeric>
#include <string>
#include <tuple>

#include "tools/host/stats_reader.h"

namespace tavistro {
namespace {

class StatsBlockTest : public testing::Test {
  protected:
    StatsBlockTest() {
        std::array<std::uint64_t, 36> remains;
        remains.fill(0xEEEEEEEEEEEEEEEE);
        other_holder_.open("TavistroEngineStats_" + std::to_string(id_) + "_v6", sizeof remains);
        other_holder_.publish(remains);
        stats_.open(id_);
        EXPECT_TRUE(reader_.open(id_));
    }
    tavistro_stats_block block() const { return reader_.read().value_or(tavistro_stats_block{}); }
    /// Of this process alone, so that tests running side by side do not meet.
    const std::uint32_t id_ = 3'000'000'000u + static_cast<std::uint32_t>(getpid());
    platform::NamedMemory other_holder_;
    StatsBlock stats_;
    host::StatsReader reader_;
};

TEST_F(StatsBlockTest, a_block_is_cleared_when_opened_and_left_alone_when_closed) {
    tavistro_stats_block expected{};
    std::memcpy(expected.magic, "TENG", 4);
    expected.layout_version = 6;
    expected.client_id = 2147483647;  // the name carries the whole id
    const tavistro_stats_block found = block();
    EXPECT_EQ(0, std::memcmp(&found, &expected, sizeof expected));

    stats_.write_state(3);
    stats_.write_error(7);
    EXPECT_TRUE(stats_.open(id_)) << "open already, and not cleared again";
    stats_.close();
    stats_.write_state(6);
    EXPECT_EQ(block().state, 3u);
    EXPECT_EQ(block().error_code, 7u);
}

TEST_F(StatsBlockTest, every_field_has_its_place) {
    ClientTelemetry client{28, 32,  36,  40,  44,  48,  52,  56,  60, 64,  {}, true,
                           72, 116, 120, 124, 128, 132, 136, 140, {}, 252, 256};
    std::iota(client.rtt_histogram.begin(), client.rtt_histogram.end(), 76);
    std::iota(client.sync_delay_histogram.begin(), client.sync_delay_histogram.end(), 144);
    PlayerTelemetry player;
    player.recvBlocksPerSec = 184, player.callbacksPerSec = 188, player.dequeuedPerSec = 192;
    player.playback_buffer_frames = 196, player.minFrames = 200, player.maxFrames = 204;
    player.target_frames = 208, player.error_frames = 212.0, player.buffer_ms = 0.216;
    player.buffer_blocks = 2.2, player.pll_ratio = 1.0002245;
    player.callback_duration_last_us = 228, player.callback_duration_max_us = 232;
    player.underruns = 236, player.overruns = 240, player.playbackDropped = 244;
    player.captureDropped = 248, player.queue_latency_last_us = 260;
    player.queue_latency_max_us = 264, player.server_to_output_last_us = 268;
    player.server_to_output_max_us = 272, player.renderedFrames = 280;
    stats_.write_client_telemetry(client);
    stats_.write_player_telemetry(player);

    const tavistro_stats_block found = block();
    for (std::uint32_t offset = 28; offset <= 280; offset += 4) {
        std::uint32_t word;
        std::memcpy(&word, reinterpret_cast<const char*>(&found) + offset, sizeof word);
        std::uint32_t expected = offset == 68 ? 1 : offset == 276 ? 0 : offset;
        if (offset >= 76 && offset < 116) expected = 76 + (offset - 76) / 4;
        if (offset >= 144 && offset < 184) expected = 144 + (offset - 144) / 4;
        EXPECT_EQ(word, expected) << "at offset " << offset;
    }
}

TEST_F(StatsBlockTest, values_stop_at_the_ends_of_their_fields) {
    ClientTelemetry client;
    client.rtt_samples = 5'000'000'000;
    stats_.write_client_telemetry(client);
    EXPECT_EQ(block().rtt_samples, 2147483647u);

    const std::tuple<double, std::int32_t, double, std::int32_t> cases[] = {
        {1e30, 2147483647, 1.0000125, 12},
        {-0.9, 0, 0.99998, -20},
        {-1e30, -2147483647 - 1, 1.0001, 99},
        {NAN, 0, 0.0, -1000000}};
    PlayerTelemetry player;
    player.renderedFrames = UINT64_MAX;
    for (const auto& [error_frames, frames, ratio, ppm] : cases) {
        player.error_frames = error_frames;
        player.pll_ratio = ratio;
        stats_.write_player_telemetry(player);
        EXPECT_EQ(block().error_frames, frames);
        EXPECT_EQ(block().ratio_ppm, ppm);
    }
    EXPECT_EQ(block().rendered_frames, 9223372036854775807u);
}

}  // namespace
}  // namespace tavistro
