// Packet loss, duplicates, reordering, jitter and outages. The loopback device returns the audio
// that it plays, so the server can detect gaps: silence within the tune.

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <utility>
#include <vector>

#include "scenarios/rig.h"
#include "support/movable_clock.h"
#include "tavistro/stats_block.h"
#include "tools/readings/stats_reader.h"

namespace tavistro::test {
namespace {

using server::FaultOptions;

constexpr std::uint32_t block_us = 2667;  // of the server's default format

/// An engine that plays a server's tune over a network with these faults.
class Line : public Rig {
  public:
    explicit Line(const FaultOptions& faults, std::uint32_t latency_blocks = 12)
        : Rig({.melodies = {{.channel = 0}}, .faults = faults, .seed = 7},
              "[latency]\nclient_latency_blocks = " + std::to_string(latency_blocks) + "\n") {
        EXPECT_TRUE(eventually([&] { return engine.runs() && input_blocks(server) > 0; }));
        EXPECT_TRUE(reader_.open(config.client_id()));
    }
    /// The engine's statistics from its second report after the call.
    tavistro_stats_block numbers() {
        for (int report = 0; report < 2; ++report) {
            const auto before = reader_.read()->rendered_frames;
            EXPECT_TRUE(eventually([&] { return reader_.read()->rendered_frames != before; }));
        }
        return *reader_.read();
    }

  private:
    readings::StatsReader reader_;
};

struct Condition {
    const char* name;
    FaultOptions faults;
    std::uint32_t latency_blocks = 12;
    bool buffer_suffices = true;
};

void expect_heard_no_more_often_than_it_does_harm(const Condition& condition) {
    SCOPED_TRACE(condition.name);
    Line line(condition.faults, condition.latency_blocks);
    ASSERT_TRUE(eventually([&, end = line.server.snapshot().blocks + 400] {
        return line.server.snapshot().blocks >= end;
    }));
    const auto seen = line.server.snapshot();
    const tavistro_stats_block numbers = line.numbers();
    EXPECT_EQ(numbers.clock_synced, 1U);
    const std::uint64_t harmed = seen.blocks_lost + seen.blocks_held_back + seen.blocks_skipped;
    EXPECT_LE(seen.input.gaps, harmed + numbers.underruns);
    EXPECT_TRUE(seen.input.gaps > 0 || harmed < 20) << "the server detects no gaps";
    if (condition.buffer_suffices) {
        // A machine under load has underruns of its own, but not forever.
        EXPECT_TRUE(eventually([&, before = numbers]() mutable {
            const auto earlier = std::exchange(before, line.numbers());
            return before.underruns == earlier.underruns &&
                   before.playback_dropped - earlier.playback_dropped < 100;
        })) << "no second without an underrun, or more blocks are queued than sent";
    } else {
        EXPECT_GT(numbers.underruns, 0U);
    }
    if (condition.faults.jitter_ms >= 50) {
        EXPECT_TRUE(eventually([&] {
            const tavistro_stats_block now = line.numbers();
            return now.server_to_output_last_us > now.queue_latency_last_us + 5000;
        })) << "server to output is measured from the arrival, not from the server time";
    }
    // A full buffer, and the jitter's effect on the transit and on the server clock estimate.
    const std::uint32_t most_delay_us =
        (std::max(condition.latency_blocks + 4, 6U) + 2) * block_us +
        2000 * condition.faults.jitter_ms + 20'000;
    EXPECT_TRUE(
        eventually([&] { return line.numbers().server_to_output_last_us <= most_delay_us; }));
    EXPECT_TRUE(line.engine.runs());
    EXPECT_EQ(line.engine.state().error_code, 0U);
}

/// Each condition has its own engine and server. All run in parallel, except under Wine: there all
/// threads wait through one process, which several engines and servers keep too busy.
void expect_all_heard(const std::vector<Condition>& conditions) {
    std::vector<std::jthread> lines;
    for (const Condition& condition : conditions) {
        lines.emplace_back([&] { expect_heard_no_more_often_than_it_does_harm(condition); });
#ifdef _WIN32
        lines.back().join();
#endif
    }
}

TEST(Network, LostDuplicatedAndReorderedBlocksCauseNoExtraGaps) {
    expect_all_heard(
        {{"OneInFive", {.drop_percent = 20}},
         {"Bursts", {.burst_every_ms = 200, .burst_length_blocks = 5}},
         {"AllTwice", {.duplicate_percent = 100}},
         {"AllAtOnce",
          {.drop_percent = 5, .duplicate_percent = 20, .reorder_percent = 10, .jitter_ms = 3}}});
}

TEST(Network, JitterCausesUnderrunsOnlyBeyondTheBufferDepth) {
    expect_all_heard({{"Within", {.jitter_ms = 50}, 24}, {"Beyond", {.jitter_ms = 50}, 6, false}});
}

TEST(NetworkCut, IsReportedAndAudioResumesWithoutTheHost) {
    for (const bool server_restarts : {false, true}) {
        SCOPED_TRACE(server_restarts ? "server restart" : "outage");
        Line line({});
        ASSERT_TRUE(line.sounds(2));
        if (server_restarts) line.server.stop();
        line.server.set_faults({.silent = true});
        EXPECT_TRUE(eventually([&] {
            advance_clock_ms(20);
            return line.engine.shows(TAVISTRO_MESSAGE_SYNC_LOST);
        }));
        EXPECT_TRUE(line.engine.runs()) << "sync loss must not end the run";
        line.server.set_faults({});
        ASSERT_EQ(line.server.start(), "");  // no effect on a running server
        EXPECT_TRUE(line.sounds(2)) << "audio did not resume";
        // A machine under load may show drops instead of "running normally".
        EXPECT_TRUE(eventually([&] { return !line.engine.shows(TAVISTRO_MESSAGE_SYNC_LOST); }));
        EXPECT_EQ(line.engine.state().event_count, 0U);
    }
}

}  // namespace
}  // namespace tavistro::test
