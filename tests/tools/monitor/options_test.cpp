// What the monitor is asked, on its command line and over HTTP.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tools/monitor/history.h"
#include "tools/monitor/live_pages.h"
#include "tools/monitor/options.h"

namespace tavistro::monitor {
namespace {

using Words = std::vector<const char*>;

std::optional<Options> parse(Words words, int& exit_code) {
    words.insert(words.begin(), "tavistro-monitor");
    return parse_options(static_cast<int>(words.size()), words.data(), exit_code);
}

TEST(Options, RefusesWhatDoesNotGoTogetherAndHasDefaults) {
    for (const Words& words : std::vector<Words>{{"0"},
                                                 {"x"},
                                                 {"--json", "--csv"},
                                                 {"--interval", "0.01"},
                                                 {"--seconds", "nan"},
                                                 {"--http", "elsewhere:80"},
                                                 {"report"},
                                                 {"report", "a", "explain"},
                                                 {"--once", "explain"},
                                                 {"--json", "report", "a"},
                                                 {"--http", "0", "explain"},
                                                 {"--record", "a", "explain"},
                                                 {"explain", "0"},
                                                 {"convert", "a", "--json"},
                                                 {"report", "a", "--from", "1:2:3:4"},
                                                 {"report", "a", "--from", "1:"},
                                                 {"report", "a", "--until", "1:-2"},
                                                 {"explain", "--recording", "a", "--seconds", "1"},
                                                 {"--nonsense"}}) {
        int exit_code = 0;
        EXPECT_FALSE(parse(words, exit_code));
        EXPECT_EQ(exit_code, 2) << words.back();
    }
    for (const auto& [words, name] : {std::pair{Words{"exlpain"}, "explain"},
                                      {{"exlpain", "--recording", "a"}, "explain"},
                                      {{"--htpp", "localhost:9120"}, "--http"}}) {
        int exit_code = 0;
        testing::internal::CaptureStderr();
        EXPECT_FALSE(parse(words, exit_code));
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_NE(said.find("; did you mean '" + std::string(name) + "'?\n"), std::string::npos)
            << said;
    }
    const auto parsed = [](const Words& words) {
        int exit_code = 0;
        return parse(words, exit_code).value();
    };
    const Options watching = parsed({});
    EXPECT_TRUE(watching.client_ids.empty());
    EXPECT_EQ(watching.interval_s, 1);
    EXPECT_FALSE(watching.seconds);
    EXPECT_EQ(parsed({"explain"}).seconds, 30);
    EXPECT_EQ(parsed({"explain", "7"}).client_ids, std::vector{7U});
    EXPECT_EQ(parsed({"explain", "7", "--seconds", "2"}).seconds, 2);
    EXPECT_TRUE(parsed({"explain", "--recording", "a"}).client_ids.empty());
    EXPECT_EQ(parsed({"bundle"}).seconds, 30);
    const Options part =
        parsed({"convert", "a", "--csv", "--from", "1:15.5", "--until", "2:00:01"});
    EXPECT_EQ(part.format, Options::Format::csv);
    EXPECT_EQ(part.from_s, 75.5);
    EXPECT_EQ(part.until_s, 7201);
}

TEST(LivePages, HaveHoursOfEachEngineTheOlderReadingsMerged) {
    LivePages pages;
    constexpr std::int64_t start_ms = 1'800'000'000'000;  // begins a minute
    constexpr int seconds = 26 * 3600;
    for (int s = 0; s < seconds; ++s) {
        Sample sample{.time_ms = start_ms + 1000 * s, .client_id = 5, .presence = Presence::alive};
        sample.host_late_us = s % 60 == 2 ? 7000 : 70;
        tavistro_stats_block& stats = sample.stats.emplace();
        stats.rtt_last_us = s % 60 == 3 ? 9000 : 500;
        stats.min_frames = s % 60 == 4 ? 1 : 600;
        stats.underruns = static_cast<std::uint32_t>(s);
        pages.add({sample, {.time_ms = sample.time_ms, .client_id = 6}});
    }
    const std::string engine = "/api/v1/engines/5/";
    const auto samples = [&](const std::string& query) {
        return nlohmann::json::parse(pages.page(engine + query)->body);
    };
    const auto all = samples("samples");
    ASSERT_EQ(all.size(), 1440U + 360U + 600U);
    EXPECT_EQ(all[0]["time_ms"], all[1]["time_ms"].get<std::int64_t>() - 60'000);
    for (const int i : {1, 1439}) {  // a whole minute
        EXPECT_EQ(all[i]["host_late_us"], 7000) << i;
        EXPECT_EQ(all[i]["stats"]["rtt_last_us"], 9000) << i;
        EXPECT_EQ(all[i]["stats"]["min_frames"], 1) << i;
        EXPECT_EQ(all[i]["stats"]["underruns"].get<int>() % 60, 59) << "the last value of " << i;
    }
    EXPECT_EQ(all[1441]["time_ms"], all[1440]["time_ms"].get<std::int64_t>() + 10'000);
    const std::int64_t newest_ms = all.back()["time_ms"];
    EXPECT_EQ(newest_ms, start_ms + 1000 * (seconds - 1));
    EXPECT_EQ(samples("samples?after=" + std::to_string(newest_ms - 2000)).size(), 2U);
    EXPECT_EQ(samples("diagnosis")["watched_s"], 599);
    EXPECT_EQ(samples("diagnosis")["from_ms"], newest_ms - 599'000);

    const auto list = nlohmann::json::parse(pages.page("/api/v1/engines")->body)["engines"];
    ASSERT_EQ(list.size(), 2U);
    EXPECT_EQ(list[0]["newest"]["stats"]["underruns"], seconds - 1);
    EXPECT_EQ(list[0]["diagnosis"]["watched_s"], 119);
    EXPECT_EQ(list[1]["diagnosis"]["causes"][0]["cause"], "no engine");
    EXPECT_NE(pages.page("/metrics")->body.find("tavistro_up{client_id=\"6\"} 0\n"),
              std::string::npos);
    EXPECT_NE(pages.page("/")->body.find("const recorded = null;"), std::string::npos);
    for (const char* const target :
         {"/other", "/api/v1/engines/", "/api/v1/engines/5", "/api/v1/engines/7/samples",
          "/api/v1/engines/5x/samples", "/api/v1/engines/5/samples?after=x", "/api/v1/engines/5/x",
          "/api/v1/enginesx/5/samples", "/api/v1/engines/-5/diagnosis"})
        EXPECT_FALSE(pages.page(target)) << target;
}

TEST(History, MergesNothingThatTellsOfAChange) {
    const auto sample = [](std::int64_t run, std::uint32_t state, Presence presence) {
        Sample one{.time_ms = 5000, .presence = presence};
        if (presence != Presence::absent) one.stats.emplace().state = state;
        one.totals.run = run;
        return one;
    };
    const std::vector<Sample> changes{
        sample(1, 3, Presence::absent), sample(1, 3, Presence::alive),
        sample(2, 3, Presence::alive),  sample(2, 4, Presence::alive),
        sample(2, 4, Presence::ended),  sample(2, 4, Presence::ended)};
    EXPECT_EQ(thinned(changes, 60'000).size(), 5U);
    EXPECT_EQ(thinned(changes, 0).size(), 6U);
}

}  // namespace
}  // namespace tavistro::monitor
