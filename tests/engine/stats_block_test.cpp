// The engine writes on one side; the test reads as another process would, through a mapping of its
// own.
#include "engine/stats_block.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cmath>
#include <string>
#include <tuple>

#include "tools/readings/stats_reader.h"

namespace tavistro {
namespace {

using Words = std::array<std::uint32_t, 72>;

// Every field gets `base` and its offset in the block.
void write_client(StatsBlock& block, std::uint32_t base) {
    ClientTelemetry from{base + 28,  base + 32,  base + 36,  base + 40,  base + 44,  base + 48,
                         base + 52,  base + 56,  base + 60,  base + 64,  {},         true,
                         base + 72,  base + 116, base + 120, base + 124, base + 128, base + 132,
                         base + 136, base + 140, {},         base + 252, base + 256};
    for (std::uint32_t i = 0; i < latency_bucket_count; ++i) {
        from.rtt_histogram[i] = base + 76 + 4 * i;
        from.sync_delay_histogram[i] = base + 144 + 4 * i;
    }
    block.write_client_telemetry(from);
}

void write_player(StatsBlock& block, std::uint32_t base) {
    PlayerTelemetry from;
    from.recvBlocksPerSec = base + 184, from.callbacksPerSec = base + 188;
    from.dequeuedPerSec = base + 192, from.playback_buffer_frames = base + 196;
    from.minFrames = base + 200, from.maxFrames = base + 204, from.target_frames = base + 208;
    from.error_frames = base + 212.5, from.buffer_ms = (base + 216.5) / 1e3;
    from.buffer_blocks = (base + 220.5) / 1e2, from.pll_ratio = 1.0 + (base + 224.5) / 1e6;
    from.callback_duration_last_us = base + 228, from.callback_duration_max_us = base + 232;
    from.underruns = base + 236, from.overruns = base + 240, from.playbackDropped = base + 244;
    from.captureDropped = base + 248, from.queue_latency_last_us = base + 260;
    from.queue_latency_max_us = base + 264, from.server_to_output_last_us = base + 268;
    from.server_to_output_max_us = base + 272, from.renderedFrames = base + 280;
    block.write_player_telemetry(from);
}

void write_all(StatsBlock& block, std::uint32_t base) {
    write_player(block, base);
    write_client(block, base);
    block.write_stream_format(base + 20, base + 24);
    block.write_error(base + 12);
    block.write_state(base + 8);
}

class StatsBlockTest : public testing::Test {
  protected:
    StatsBlockTest() {
        std::array<std::uint64_t, 36> remains;
        remains.fill(0xEEEEEEEEEEEEEEEE);
        other_holder_.open("TavistroEngineStats_" + std::to_string(id_) + "_v6", sizeof remains);
        other_holder_.store(0, remains);
        stats_.open(id_);
        EXPECT_TRUE(reader_.open(id_));
    }
    tavistro_stats_block block() const { return reader_.read().value_or(tavistro_stats_block{}); }
    Words words() const { return std::bit_cast<Words>(block()); }
    /// Of this process alone, so that tests running side by side do not meet.
    const std::uint32_t id_ = 3'000'000'000u + static_cast<std::uint32_t>(getpid());
    Words cleared_{std::bit_cast<std::uint32_t>(std::array{'T', 'E', 'N', 'G'}), 6, 0, 0,
                   2147483647};  // the name carries the whole id
    platform::NamedMemory other_holder_;
    StatsBlock stats_;
    readings::StatsReader reader_;
};

/// What all writes with this base leave.
Words filled(Words cleared, std::uint32_t base) {
    for (std::uint32_t i = 0; i < cleared.size(); ++i)
        if (cleared[i] == 0 && i != 276 / 4 && i != 284 / 4) cleared[i] = base + 4 * i;
    cleared[68 / 4] = 1;  // clock_synced
    return cleared;
}

TEST_F(StatsBlockTest, a_block_is_cleared_when_opened_and_left_alone_when_closed) {
    EXPECT_EQ(words(), cleared_);
    write_all(stats_, 1000);
    EXPECT_TRUE(stats_.open(id_));
    EXPECT_EQ(words(), filled(cleared_, 1000)) << "was open already, and is not cleared again";
    stats_.close();
    write_all(stats_, 2000);
    EXPECT_EQ(words(), filled(cleared_, 1000));
    EXPECT_TRUE(stats_.open(id_));
    EXPECT_EQ(words(), cleared_);
}

TEST_F(StatsBlockTest, a_write_leaves_the_fields_of_another_engine) {
    StatsBlock other_engine;
    ASSERT_TRUE(other_engine.open(id_));
    write_all(other_engine, 2000);
    EXPECT_EQ(words(), filled(cleared_, 2000));
    stats_.write_state(3008);
    stats_.write_client_telemetry({});
    EXPECT_EQ(words()[2], 3008u);
    EXPECT_EQ(block().rtt_min_us, 0u);
    stats_.write_state(2008);
    write_client(stats_, 2000);
    EXPECT_EQ(words(), filled(cleared_, 2000)) << "nothing else was written";
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
