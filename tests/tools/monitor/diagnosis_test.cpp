// Which causes are named: in worlds in virtual time, which are equal on every machine, and of
// readings made by hand. All that is said of such worlds is in diagnosis_says.txt.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "bench/diagnosis_lab/catalogue.h"
#include "bench/diagnosis_lab/world.h"
#include "tavistro/engine.h"
#include "tools/monitor/tally.h"

namespace tavistro::test {
namespace {

using diagnosis_lab::Recording;
using diagnosis_lab::Strength;
using monitor::Account;
using monitor::Cause;
using monitor::Presence;
using monitor::Sample;

using Causes = std::vector<Cause>;

Causes causes_in(const Account& account) {
    Causes causes;
    for (const monitor::Finding& finding : account.causes)
        causes.push_back(finding.cause);
    return causes;
}

std::string said(const Account& account) {
    std::string all;
    for (const std::string& line : monitor::account_lines(account))
        all.append(line).append("\n");
    return all;
}

TEST(Diagnosis, CountsAreThoseOfTheWorld) {
    for (const auto& [name, strength, seconds] : {std::tuple{"loss", Strength::strong, 300.0},
                                                  {"notices", Strength::middle, 60.0},
                                                  {"bursts", Strength::middle, 300.0},
                                                  {"reorder", Strength::middle, 60.0}}) {
        SCOPED_TRACE(name);
        auto entry = diagnosis_lab::find_entry(name);
        entry->strength = strength;
        const Recording recording =
            diagnosis_lab::simulate(diagnosis_lab::scenario_of(*entry, 3, seconds));
        const auto counted = recording.last_look - recording.first_look;
        const monitor::Totals& told = recording.samples.back().totals;
        // Not counted: the first seconds, and what was not published yet.
        const double share = 1 - 7 / seconds;
        const auto near = [&](std::int64_t told_count, std::int64_t truth, const char* what) {
            EXPECT_LE(told_count, truth) << what;
            EXPECT_GE(static_cast<double>(told_count), share * static_cast<double>(truth) - 10)
                << what;
        };
        near(told.replaced.count, counted.replaced, "blocks replaced");
        near(told.repeated.count, counted.late + counted.came_again, "blocks repeated");
        near(told.notices_missed.count, counted.notices_missed(), "notices missed");
        near(told.periods, counted.periods, "periods");
        near(told.underruns, counted.underruns, "underruns");
        near(told.overruns, counted.overruns, "overruns");
    }
}

/// An engine that publishes a notice at each look, every 4 ms, and a report each second.
class Counted {
  public:
    Counted() {
        block_.state = TAVISTRO_STATE_RUNNING;
        block_.stream_sample_rate = 48000;
        block_.stream_block_frames = 192;
        block_.target_frames = 1920;
        block_.clock_synced = 1;
    }
    /// Seconds with so many underruns each, and notices as long as `heard`.
    const monitor::Totals& run(int seconds, std::uint32_t underruns = 0, bool heard = true) {
        for (int look = 0; look < 250 * seconds; ++look) {
            block_.sync_delay_samples += heard ? 1 : 0;
            if (look % 250 == 249) {
                block_.underruns += underruns;
                block_.rendered_frames += 48000;
                block_.client_recv_blocks_per_sec = block_.player_recv_blocks_per_sec =
                    heard ? 250 : 0;
                block_.callbacks_per_sec = 250;
            }
            look_after(4);
        }
        return tally_.totals();
    }
    void look_after(std::int64_t ms, std::int64_t overslept_us = 0) {
        now_us_ += ms * 1000;
        tally_.look(now_us_, overslept_us, block_);
    }
    tavistro_stats_block& block() { return block_; }

  private:
    tavistro_stats_block block_{};
    std::int64_t now_us_ = 1'000'000;
    monitor::Tally tally_;
};

TEST(Tally, BeginsANewRunWhereCountsBeginAnewOrAReportCouldBeMissed) {
    Counted engine;
    EXPECT_EQ(engine.run(5).run, 1);
    engine.look_after(800);
    EXPECT_EQ(engine.run(5).run, 1);
    EXPECT_EQ(engine.run(1).notices, 11 * 250 - 1) << "since the first look";
    engine.look_after(1000);
    EXPECT_EQ(engine.run(5).run, 2);
    engine.block().sync_delay_samples = 0;
    EXPECT_EQ(engine.run(5).run, 3);
    engine.block().rendered_frames = 0;
    EXPECT_EQ(engine.run(5).run, 4);
    EXPECT_EQ(engine.run(1).reported_ms, 3 * 1000) << "without the first reports";
}

TEST(Tally, SetsDropOutsBesideTheTroublesOfTheSecondsAround) {
    Counted engine;
    engine.run(10);
    engine.run(1, 3);
    EXPECT_EQ(engine.run(5).unexplained.count, 3);
    engine.look_after(4);  // the report is complete
    engine.look_after(4, 5000);
    engine.run(1);
    engine.run(1, 4);
    const monitor::Totals& totals = engine.run(5);
    EXPECT_EQ(totals.pauses.count, 1);
    EXPECT_EQ(totals.pauses.drop_outs, 4);
    EXPECT_EQ(totals.unexplained.count, 3) << "not those right after a pause";
    EXPECT_EQ(totals.underruns, 7);
    engine.look_after(4, 3900);
    EXPECT_EQ(engine.run(1).pauses.count, 1) << "shorter than a block";
}

TEST(Tally, ASilenceIsNeitherLatenessNorAGap) {
    Counted engine;
    engine.run(10);
    for (const std::int64_t ms : {3000, 6000}) {
        engine.run(3, 0, false);
        const monitor::Totals& totals = engine.run(5);
        EXPECT_NEAR(static_cast<double>(totals.silence.count), static_cast<double>(ms), 10);
        EXPECT_EQ(totals.late.count, 0);
        EXPECT_EQ(totals.notice_gaps.count, 0);
    }
}

/// A reading a second of a run in which `grow` adds to the totals, each second or every few.
std::vector<Sample> readings(int seconds, const std::function<void(int, Sample&)>& grow) {
    Sample sample{.client_id = 1, .presence = Presence::alive, .stats = tavistro_stats_block{}};
    sample.stats->stream_sample_rate = 48000;
    sample.stats->stream_block_frames = 480;
    sample.stats->target_frames = 1440;
    sample.totals.run = 1;
    std::vector<Sample> samples{sample};
    for (int second = 1; second <= seconds; ++second) {
        sample.time_ms += 1000;
        sample.totals.watched_ms += 1000;
        sample.totals.reported_ms += 1000;
        sample.totals.blocks += 100;
        sample.totals.periods += 100;
        grow(second, sample);
        samples.push_back(sample);
    }
    return samples;
}
void add(monitor::Trouble& trouble, std::int64_t count, std::int64_t drop_outs = 0) {
    trouble.count += count;
    trouble.drop_outs += drop_outs;
    ++trouble.seconds;
}

using Lines = std::vector<std::string>;

TEST(Judge, TellsFactsAndCausesInTheirOrderAndFromWhenToWhen) {
    // The network loses blocks between 0:10 and 0:40, the device too many periods all the time.
    const auto samples = readings(60, [](int second, Sample& now) {
        if (second % 10 == 0 && second <= 40) add(now.totals.replaced, 3);
        if (second % 10 == 0 && second <= 40) add(now.totals.repeated, 1);
        if (second % 10 == 0 && second <= 40) add(now.totals.notices_missed, 2);
        if (second % 20 == 5) add(now.totals.periods_long, 4, 4);
        if (second % 20 == 5) now.totals.underruns += 4;
        now.totals.periods += 2;
        now.totals.server_faster_ppm = -20'000;
        now.totals.clock_uncertainty_ppm = second < 60 ? 20 : 499;
    });
    EXPECT_EQ(said(monitor::judge(samples)),
              R"(0:10 to 0:40  blocks replaced: 12 blocks played as silence, 0.20 % of 6000
0:10 to 0:40  blocks repeated: 4 blocks that came again or too late, 0.07 % of 6000
0:10 to 0:40  notices missed: 8 notices of the server's clock, 0.13 % of 6000
0:05 to 0:45  underruns: 12 periods without a block to play
0:05 to 0:45  device periods: 6120 ran, 60.0 s have 6000; 0 too few in 0 seconds, 12 too many in 3
0:00 to 1:00  clocks: the server's is -20000 +-499 ppm against the device's
CAUSE network loss (0:00 to 1:00): 8 blocks (0.13 %) never came; silence was played for them
CAUSE late network (0:00 to 1:00): 4 blocks (0.07 %) came after silence had been played for them
CAUSE device too fast (0:00 to 1:00): the device asked for 12 periods (0.20 %) more than its rate has; 12 underruns, 0 overruns
)");
}

// Two minutes are judged at a time, and what goes on is told once.
TEST(Judge, JoinsNeighbouringPiecesAndKeepsOthersApart) {
    const auto losing = [](int from, int until) {
        return [=](int second, Sample& now) {
            if (second >= from && second <= until && second % 5 == 0) {
                add(now.totals.replaced, 2);
                add(now.totals.notices_missed, 2);
            }
            if (second > 300 && second % 10 == 0) now.totals.overruns += 9;
        };
    };
    std::vector<Sample> samples = readings(290, losing(0, 290));
    const Account whole = monitor::judge(samples);
    ASSERT_EQ(causes_in(whole), Causes{Cause::network_loss}) << said(whole);
    EXPECT_EQ(whole.causes[0].when.from_s, 0);
    EXPECT_EQ(whole.causes[0].when.until_s, 290);

    const Account early = monitor::judge(readings(600, losing(0, 150)));
    ASSERT_EQ(causes_in(early), Causes{Cause::network_loss}) << said(early);
    EXPECT_EQ(early.causes[0].when.until_s, 240);
    EXPECT_NE(early.not_clear_yet.find("for 108 underruns and overruns"), std::string::npos)
        << early.not_clear_yet << ": those of the last two minutes";

    // The same again after an hour, as another run: told twice.
    for (Sample sample : std::vector(samples)) {
        sample.time_ms += 3'600'000;
        sample.totals.run = 2;
        samples.push_back(sample);
    }
    const Account two = monitor::judge(samples);
    ASSERT_EQ(causes_in(two), (Causes{Cause::network_loss, Cause::network_loss})) << said(two);
    EXPECT_EQ(two.causes[1].when.from_s, 3600);
}

TEST(Judge, NamesEachOfTwoCausesBesideTheOther) {
    const auto slow_and_silent = [](int second, Sample& now) {
        if (second == 30) now.totals.underruns += 20;
        if (second == 30) add(now.totals.silence, 1500, 20);
        if (second % 10 == 0) ++now.totals.overruns;
        now.totals.server_faster_ppm = 1000;
        now.totals.clock_uncertainty_ppm = 50;
    };
    EXPECT_EQ(causes_in(monitor::judge(readings(60, slow_and_silent))),
              (Causes{Cause::server_silent, Cause::device_too_slow}));

    for (const std::int64_t more_underruns : {0, 5}) {
        const auto uneven_then_ended = [=](int second, Sample& now) {
            if (second % 10 == 0) {
                now.totals.underruns += 3 + more_underruns;
                now.totals.overruns += 8 - more_underruns;
                add(now.totals.unexplained, 11);
            }
            if (second == 60) now.presence = Presence::ended;
        };
        EXPECT_EQ(causes_in(monitor::judge(readings(60, uneven_then_ended))),
                  (Causes{Cause::engine_ended, Cause::device_uneven}));
    }
}

// A network that doubles blocks hides which of them were late.
TEST(Judge, NamesNoCauseForLossesBesideDoubledBlocks) {
    const Account account = monitor::judge(readings(60, [](int second, Sample& now) {
        if (second % 10 == 0) add(now.totals.replaced, 2);
        if (second % 10 == 0) add(now.totals.repeated, 5);
    }));
    EXPECT_EQ(causes_in(account), Causes{}) << said(account);
    EXPECT_NE(account.not_clear_yet.find("for 12 blocks replaced by silence"), std::string::npos);
}

TEST(Judge, SaysOfAnEngineThatEndedDiedOrFailedOnlyThat) {
    const auto ends = [](Presence presence, std::uint32_t state, std::uint32_t error) {
        std::vector<Sample> samples = readings(20, [](int, Sample&) {});
        samples.push_back(samples.back());
        samples.back().time_ms += 1000;
        samples.back().presence = presence;
        samples.back().stats->state = state;
        samples.back().stats->error_code = error;
        // Frozen before it is known to be: what a dead engine left is not the server's fault.
        for (int i = 0; presence == Presence::silent && i < 5; ++i) {
            samples.push_back(samples.back());
            samples.back().time_ms += 1000;
            add(samples.back().totals.silence, 1000);
        }
        return monitor::account_lines(monitor::judge(samples));
    };
    EXPECT_EQ(ends(Presence::ended, TAVISTRO_STATE_STOPPED, TAVISTRO_ERROR_NONE),
              Lines{"CAUSE engine stopped (0:21): the run was stopped"});
    EXPECT_EQ(ends(Presence::ended, TAVISTRO_STATE_FAILED, TAVISTRO_ERROR_AUDIO_DEVICE_FAILED),
              Lines{"CAUSE engine failed (0:21): audio device failed"});
    EXPECT_EQ(ends(Presence::silent, TAVISTRO_STATE_RUNNING, TAVISTRO_ERROR_NONE),
              Lines{"CAUSE engine silent (0:26): the engine's block is there, but nobody writes "
                    "it: its process died or hangs"});
    EXPECT_EQ(causes_in(monitor::judge({})), Causes{});
    EXPECT_EQ(causes_in(monitor::judge(std::vector{Sample{.client_id = 1}})),
              Causes{Cause::engine_absent});
}

}  // namespace
}  // namespace tavistro::test
