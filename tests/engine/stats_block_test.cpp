// The test reads the engine's block with a reader, like another process.
#include "engine/stats_block.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cmath>
#include <string>

#include "tools/readings/stats_reader.h"

namespace tavistro {
namespace {

using Words = std::array<std::uint32_t, 72>;

/// Writes `base` plus its offset in the block to every field.
void write_all(StatsBlock& block, std::uint32_t base) {
    ClientTelemetry client{base + 28,  base + 32,  base + 36,  base + 40,  base + 44,  base + 48,
                           base + 52,  base + 56,  base + 60,  base + 64,  {},         true,
                           base + 72,  base + 116, base + 120, base + 124, base + 128, base + 132,
                           base + 136, base + 140, {},         base + 252, base + 256};
    for (std::uint32_t i = 0; i < latency_bucket_count; ++i) {
        client.rtt_histogram[i] = base + 76 + 4 * i;
        client.sync_delay_histogram[i] = base + 144 + 4 * i;
    }
    PlayerTelemetry player;
    player.recvBlocksPerSec = base + 184, player.callbacksPerSec = base + 188;
    player.dequeuedPerSec = base + 192, player.playback_buffer_frames = base + 196;
    player.minFrames = base + 200, player.maxFrames = base + 204, player.target_frames = base + 208;
    player.error_frames = base + 212.5, player.buffer_ms = (base + 216.5) / 1e3;
    player.buffer_blocks = (base + 220.5) / 1e2, player.pll_ratio = 1.0 + (base + 224.5) / 1e6;
    player.callback_duration_last_us = base + 228, player.callback_duration_max_us = base + 232;
    player.underruns = base + 236, player.overruns = base + 240;
    player.playbackDropped = base + 244, player.captureDropped = base + 248;
    player.queue_latency_last_us = base + 260, player.queue_latency_max_us = base + 264;
    player.server_to_output_last_us = base + 268, player.server_to_output_max_us = base + 272;
    player.renderedFrames = base + 280;
    block.write_player_telemetry(player);
    block.write_client_telemetry(client);
    block.write_stream_format(base + 20, base + 24);
    block.write_error(ErrorCode{base + 12});
    block.write_state(EngineState{base + 8});
}

/// The expected block after write_all() with this base.
Words filled(Words cleared, std::uint32_t base) {
    for (std::uint32_t i = 0; i < cleared.size(); ++i)
        if (cleared[i] == 0 && i != 276 / 4 && i != 284 / 4) cleared[i] = base + 4 * i;
    cleared[68 / 4] = 1;  // clock_synced
    return cleared;
}

TEST(StatsBlock, IsClearedOnOpenUnchangedOnceClosedAndSaturates) {
    // Different in every process, for tests that run in parallel.
    const std::uint32_t id = 3'000'000'000u + static_cast<std::uint32_t>(getpid());
    std::array<std::uint64_t, 36> remains;
    remains.fill(0xEEEEEEEEEEEEEEEE);
    platform::NamedMemory other_holder;
    other_holder.open("TavistroEngineStats_" + std::to_string(id) + "_v6", sizeof remains);
    other_holder.store(0, remains);
    StatsBlock stats;
    readings::StatsReader reader;
    ASSERT_TRUE(stats.open(id));
    ASSERT_TRUE(reader.open(id));
    const auto words = [&] { return std::bit_cast<Words>(*reader.read()); };

    const Words cleared{std::bit_cast<std::uint32_t>(std::array{'T', 'E', 'N', 'G'}), 6, 0, 0,
                        2147483647};  // the id saturates here, but not in the name
    EXPECT_EQ(words(), cleared);
    write_all(stats, 1000);
    EXPECT_TRUE(stats.open(id));
    EXPECT_EQ(words(), filled(cleared, 1000)) << "already open, must not be cleared";
    stats.close();
    write_all(stats, 2000);
    EXPECT_EQ(words(), filled(cleared, 1000));
    EXPECT_TRUE(stats.open(id));
    EXPECT_EQ(words(), cleared);

    PlayerTelemetry player;
    player.renderedFrames = UINT64_MAX;
    player.error_frames = NAN;
    player.pll_ratio = 1e30;
    stats.write_player_telemetry(player);
    EXPECT_EQ(reader.read()->rendered_frames, 9223372036854775807u);
    EXPECT_EQ(reader.read()->error_frames, 0);
    EXPECT_EQ(reader.read()->ratio_ppm, 2147483647);
    player.error_frames = -0.9;
    player.pll_ratio = 0.99998;
    stats.write_player_telemetry(player);
    EXPECT_EQ(reader.read()->error_frames, 0);
    EXPECT_EQ(reader.read()->ratio_ppm, -20);
}

}  // namespace
}  // namespace tavistro
