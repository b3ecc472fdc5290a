// What is said of faults whose truth is known: worlds in virtual time, equal on every machine.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "bench/diagnosis_lab/catalogue.h"
#include "bench/diagnosis_lab/world.h"

namespace tavistro::test {
namespace {

using diagnosis_lab::Recording;
using diagnosis_lab::Scenario;
using diagnosis_lab::Strength;
using monitor::Account;
using monitor::Cause;
using monitor::Sample;

using Causes = std::vector<Cause>;

struct World {
    const char* name;
    Strength strength = Strength::middle;
    double seconds = 60;
    bool busy = false;
    std::uint64_t seed = 3;
};

Scenario scenario(const World& world) {
    auto entry = diagnosis_lab::find_entry(world.name);
    entry->strength = world.strength;
    entry->busy = world.busy;
    return diagnosis_lab::scenario_of(*entry, world.seed, world.seconds);
}

std::vector<Sample> samples_of(const World& world) {
    return diagnosis_lab::simulate(scenario(world)).samples;
}

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

const monitor::Fact* fact(const Account& account, std::string_view name) {
    const auto found = std::ranges::find(account.facts, name, &monitor::Fact::name);
    return found == account.facts.end() ? nullptr : &*found;
}

TEST(Diagnosis, NamesWhatWasPutInAndNothingElse) {
    struct Case {
        World world;
        Causes causes;
        const char* words = "";
        std::vector<std::uint64_t> seeds{1, 3, 5, 7};
    };
    for (const Case& c : std::vector<Case>{
             {{"none"}, {}},
             {{"duplication"}, {}},
             {{"little-jitter"}, {}},
             {{"clocks-apart"}, {}},
             {{"loss", Strength::weak, 300}, {Cause::network_loss}, "never came", {3}},
             {{"loss", Strength::strong}, {Cause::network_loss}, "never came"},
             {{"bursts"}, {Cause::network_loss}, "never came"},
             {{"reorder"}, {Cause::late_network}, "after silence had been played"},
             {{"jitter"}, {Cause::late_network}, "would hold it"},
             {{"notices"}, {Cause::missing_notices}},
             {{"silence"}, {Cause::server_silent}, "for 6.0 s"},
             {{"fast-clock"}, {Cause::device_too_fast}, "clock is fast"},
             {{"slow-clock"}, {Cause::device_too_slow}, "clock is slow"},
             {{"skips"}, {Cause::device_stall}, "missed"},
             {{"stalls"}, {Cause::device_stall}, "missed"},
             {{"uneven"}, {Cause::device_uneven}, "unevenly"},
             {{"doubled", Strength::strong}, {Cause::device_too_fast}, "more than its rate has"},
             {{"other-rate"}, {Cause::format_mismatch}, "Hz"},
             {{"loss+slow-clock", Strength::middle, 120},
              {Cause::network_loss, Cause::device_too_slow}}}) {
        for (const std::uint64_t seed : c.seeds) {
            SCOPED_TRACE(std::string(c.world.name) + " seed " + std::to_string(seed));
            World world = c.world;
            world.seed = seed;
            const Account account = monitor::judge(samples_of(world));
            EXPECT_EQ(causes_in(account), c.causes) << said(account);
            EXPECT_EQ(account.not_clear_yet, "");
            if (account.causes.empty()) continue;
            EXPECT_NE(account.causes.front().text.find(c.words), std::string::npos)
                << said(account);
        }
    }
}

// Threads of a busy computer make late blocks, missed periods and drop-outs of every kind.
TEST(Diagnosis, BlamesABusyComputerForItsDropOutsAndNoSide) {
    int named = 0;
    for (const char* const name : {"none", "duplication", "little-jitter", "clocks-apart"}) {
        for (const std::uint64_t seed : {1U, 3U, 5U, 7U, 9U}) {
            const World world{name, Strength::middle, 120, true, seed};
            const Account account = monitor::judge(samples_of(world));
            for (const Cause cause : causes_in(account))
                EXPECT_EQ(cause, Cause::host_overload) << name << seed << '\n' << said(account);
            named += static_cast<int>(account.causes.size());
        }
    }
    EXPECT_GT(named, 10);
}

TEST(Diagnosis, SaysWhatWouldMakeARareFaultClear) {
    const Account account = monitor::judge(samples_of({"loss", Strength::weak, 45, false, 5}));
    EXPECT_EQ(causes_in(account), Causes{}) << said(account);
    ASSERT_NE(fact(account, "blocks replaced"), nullptr) << said(account);
    EXPECT_NE(account.not_clear_yet.find("Watch for two minutes"), std::string::npos);
}

TEST(Diagnosis, CountsAreThoseOfTheWorld) {
    for (const World& world : {World{"loss", Strength::strong, 300}, World{"notices"},
                               World{"bursts", Strength::middle, 300}, World{"reorder"}}) {
        SCOPED_TRACE(world.name);
        const Recording recording = diagnosis_lab::simulate(scenario(world));
        const auto counted = recording.last_look - recording.first_look;
        const monitor::Totals& told = recording.samples.back().totals;
        // Not counted: the first seconds, and what was not published yet.
        const double share = 1 - 7 / world.seconds;
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
    for (const auto& [strength, seconds] : {std::pair{Strength::weak, "2.0 s"},
                                            {Strength::middle, "6.0 s"},
                                            {Strength::strong, "19.0 s"}}) {
        const Account account = monitor::judge(samples_of({"silence", strength}));
        ASSERT_NE(fact(account, "server silent"), nullptr);
        EXPECT_TRUE(fact(account, "server silent")->text.starts_with(seconds)) << said(account);
    }
}

TEST(Diagnosis, MeasuresTheClocksEverMoreClosely) {
    for (const double ppm : {200.0, -200.0}) {
        Scenario world = scenario({"none", Strength::middle, 300});
        world.faults.drift_ppm = ppm;
        const std::vector<Sample> samples = diagnosis_lab::simulate(world).samples;
        double before_ppm = 1e9;
        for (const std::size_t second : {30U, 60U, 120U, 299U}) {
            const monitor::Totals& totals = samples[second].totals;
            EXPECT_NEAR(totals.server_faster_ppm, ppm, totals.clock_uncertainty_ppm) << second;
            EXPECT_LT(totals.clock_uncertainty_ppm, before_ppm) << second;
            before_ppm = totals.clock_uncertainty_ppm;
        }
        EXPECT_NEAR(samples[299].totals.server_faster_ppm, ppm, 20);
        EXPECT_LE(before_ppm, 20);
    }
}

TEST(Diagnosis, JoinsNeighbouringPiecesAndKeepsOthersApart) {
    std::vector<Sample> samples = samples_of({"loss", Strength::strong, 500});
    const Account whole = monitor::judge(samples);
    ASSERT_EQ(whole.causes.size(), 1U) << said(whole);
    EXPECT_LT(whole.causes[0].from_s, 1);
    EXPECT_GT(whole.causes[0].until_s, 498);

    // The same again after an hour, as another run: told twice.
    for (Sample sample : samples_of({"loss", Strength::strong, 60})) {
        sample.time_ms += 3'600'000;
        ++sample.totals.run;
        samples.push_back(sample);
    }
    const Account two = monitor::judge(samples);
    ASSERT_EQ(causes_in(two), (Causes{Cause::network_loss, Cause::network_loss})) << said(two);
    EXPECT_GE(two.causes[1].from_s, 3600);
}

TEST(Diagnosis, WhatADeadEngineLeftIsNotTheServersFault) {
    std::vector<Sample> samples = samples_of({"none", Strength::middle, 30});
    for (int second = 1; second < 6; ++second) {
        samples.push_back(samples.back());
        samples.back().time_ms += 1000;
        if (second == 5) samples.back().presence = monitor::Presence::silent;
    }
    EXPECT_EQ(causes_in(monitor::judge(samples)), Causes{Cause::engine_silent});
}

}  // namespace
}  // namespace tavistro::test
