// What the monitor is asked, on its command line and over HTTP.

#include <gtest/gtest.h>

#include <algorithm>

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
}

TEST(LivePages, HaveTheLastReadingsOfEachClient) {
    LivePages pages;
    EXPECT_EQ(pages.page("/samples.json")->body, "[]");
    for (std::int64_t ms = 1; ms <= 601; ++ms)
        pages.add({{.time_ms = ms, .client_id = 5}, {.time_ms = ms, .client_id = 6}});
    const auto samples = [&](const std::string& target) {
        const std::string json = pages.page(target)->body;
        return json == "[]" ? 0 : std::ranges::count(json, '\n') + 1;
    };
    EXPECT_EQ(samples("/samples.json"), 1200);
    EXPECT_EQ(samples("/samples.json?after=600"), 2);
    EXPECT_EQ(samples("/samples.json?after=601"), 0);
    const auto has = [](const std::string& text, const std::string& part) {
        return text.find(part) != std::string::npos;
    };
    const std::string diagnosis = pages.page("/diagnosis.json")->body;
    EXPECT_TRUE(has(diagnosis, R"([{"client_id":5,"watched_s":0.599,)")) << diagnosis;
    EXPECT_TRUE(has(diagnosis, R"({"client_id":6,"watched_s":0.599,)"));
    EXPECT_TRUE(has(pages.page("/metrics")->body, "tavistro_up{client_id=\"6\"} 0\n"));
    EXPECT_TRUE(has(pages.page("/")->body, "const recorded = null;"));
    EXPECT_FALSE(pages.page("/other"));
}

}  // namespace
}  // namespace tavistro::monitor
