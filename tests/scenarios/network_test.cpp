// Networks that lose, repeat, overtake and hold up, and lines that go dead. The loopback device
// sends back what it plays, so the server hears what a listener would: silence amid the tune is a
// gap.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "scenarios/rig.h"
#include "tavistro/stats_block.h"
#include "tools/readings/stats_reader.h"

namespace tavistro::test {
namespace {

using server::FaultOptions;
using server::ServerSnapshot;

constexpr std::uint32_t block_us = 2667;  // of the server's default format

/// An engine that plays a server's tune over a line of these faults.
class Line : public Rig {
  public:
    explicit Line(const FaultOptions& faults, std::uint32_t latency_blocks = 12)
        : Rig({.melodies = {{.channel = 0}}, .faults = faults, .seed = 7},
              "[latency]\nclient_latency_blocks = " + std::to_string(latency_blocks) + "\n"),
          latency_blocks_(latency_blocks),
          jitter_us_(1000 * faults.jitter_ms) {
        EXPECT_TRUE(eventually([&] { return engine.runs() && input_blocks(server) > 0; }));
        EXPECT_TRUE(reader_.open(config.client_id()));
    }
    bool passes(std::uint64_t blocks) {
        const std::uint64_t end = server.snapshot().blocks + blocks;
        return eventually([&] { return server.snapshot().blocks >= end; });
    }
    /// The engine's numbers from after the call: its second report from now.
    tavistro_stats_block numbers() {
        for (int report = 0; report < 2; ++report) {
            const auto before = reader_.read()->rendered_frames;
            EXPECT_TRUE(eventually([&] { return reader_.read()->rendered_frames != before; }));
        }
        return *reader_.read();
    }
    /// A reader keeps the last values.
    std::uint32_t last_state() const { return reader_.read()->state; }
    /// From the server's time of a block to its playing: a full buffer, and what the line adds to
    /// the way and to the estimate of the server's clock.
    bool delay_is_bounded() {
        const std::uint32_t most_us =
            (std::max(latency_blocks_ + 4, 6U) + 2) * block_us + 2 * jitter_us_ + 20'000;
        return eventually([&] {
            const std::uint32_t delay_us = reader_.read()->server_to_output_last_us;
            return delay_us > 0 && delay_us <= most_us;
        });
    }

  private:
    std::uint32_t latency_blocks_;
    std::uint32_t jitter_us_;
    host::StatsReader reader_;
};

struct Condition {
    const char* name;
    FaultOptions faults;
    std::uint32_t latency_blocks = 12;
    bool buffer_suffices = true;
    friend void PrintTo(const Condition& condition, std::ostream* out) { *out << condition.name; }
};

class Network : public ::testing::TestWithParam<Condition> {};

TEST_P(Network, IsHeardNoMoreOftenThanItDoesHarm) {
    constexpr std::uint64_t blocks = 500;
    const Condition& condition = GetParam();
    Line line(condition.faults, condition.latency_blocks);
    ASSERT_TRUE(line.passes(blocks));
    const ServerSnapshot seen = line.server.snapshot();
    const tavistro_stats_block numbers = line.numbers();

    const std::uint64_t harmed = seen.blocks_lost + seen.blocks_held_back + seen.blocks_skipped;
    EXPECT_LE(seen.input.gaps, harmed + numbers.underruns);
    EXPECT_TRUE(seen.input.gaps > 0 || harmed < 20) << "nobody listens";
    if (condition.buffer_suffices) {
        // A machine under load misses some by itself, but not for ever.
        EXPECT_TRUE(eventually([&, before = numbers]() mutable {
            const auto earlier = std::exchange(before, line.numbers());
            return before.underruns == earlier.underruns &&
                   before.playback_dropped - earlier.playback_dropped < 100;
        })) << "never a second without an underrun, or more is queued than is sent";
    } else {
        EXPECT_GT(numbers.underruns, 0U);
    }
    EXPECT_TRUE(numbers.client_duplicate_blocks_per_sec > 0 ||
                condition.faults.duplicate_percent == 0);
    EXPECT_GT(numbers.rtt_samples, 0U);
    EXPECT_GT(numbers.sync_delay_samples, 0U);
    EXPECT_GT(numbers.callbacks_per_sec, 0U);
    EXPECT_GT(numbers.client_recv_blocks_per_sec, 0U);
    EXPECT_EQ(numbers.stream_sample_rate, 48000U);
    EXPECT_EQ(numbers.target_frames, 128 * condition.latency_blocks);
    EXPECT_TRUE(line.delay_is_bounded());
    EXPECT_TRUE(line.engine.runs());
    EXPECT_EQ(line.engine.state().error_code, 0U);
}

INSTANTIATE_TEST_SUITE_P(
    Conditions, Network,
    ::testing::Values(
        Condition{"OneInAThousandLost", {.drop_percent = 0.1}},
        Condition{"OneInAHundredLost", {.drop_percent = 1}},
        Condition{"OneInTwentyLost", {.drop_percent = 5}},
        Condition{"OneInFiveLost", {.drop_percent = 20}},
        Condition{"BurstsLost", {.burst_every_ms = 200, .burst_length_blocks = 5}},
        Condition{"Overtaken", {.reorder_percent = 5}},
        Condition{"AllTwice", {.duplicate_percent = 100}},
        Condition{"JitterWithinTheBuffer", {.jitter_ms = 50}, 24},
        Condition{"JitterBeyondTheBuffer", {.jitter_ms = 50}, 6, false},
        Condition{
            "AllAtOnce",
            {.drop_percent = 5, .duplicate_percent = 20, .reorder_percent = 10, .jitter_ms = 3}}),
    [](const auto& param) { return param.param.name; });

TEST(NetworkCut, IsReportedWhileItLastsAndHealsWithoutTheHost) {
    constexpr std::uint32_t most_blocks_to_heal = 3750;  // 10 s: hangs end, slow machines do not
    for (const bool server_restarts : {false, true}) {
        SCOPED_TRACE(server_restarts ? "the server restarts" : "the line goes dead");
        Line line({});
        ASSERT_TRUE(line.sounds(2));
        if (server_restarts) {
            line.server.stop();
        } else {
            line.server.set_faults({.silent = true});
        }
        std::this_thread::sleep_for(std::chrono::seconds(4));
        EXPECT_TRUE(eventually([&] { return line.engine.shows(TAVISTRO_MESSAGE_SYNC_LOST); }));
        EXPECT_TRUE(line.engine.runs()) << "silence is no failure";

        line.server.set_faults({});
        ASSERT_EQ(line.server.start(), "");  // one that runs goes on
        const std::uint32_t back_at = line.server.snapshot().next_sequence;
        EXPECT_TRUE(line.sounds(2)) << "no audio came back";
        EXPECT_LE(line.server.snapshot().next_sequence - back_at, most_blocks_to_heal);
        // What a machine under load drops meanwhile may be shown instead of "running normally".
        EXPECT_TRUE(eventually([&] { return !line.engine.shows(TAVISTRO_MESSAGE_SYNC_LOST); }));
        EXPECT_TRUE(line.delay_is_bounded());
        EXPECT_EQ(line.engine.state().event_count, 0U);
        line.engine.stop();
        EXPECT_EQ(line.last_state(), TAVISTRO_STATE_STOPPED);
    }
}

}  // namespace
}  // namespace tavistro::test
