#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "tools/host/check_command.h"
#include "tools/host/config_warnings.h"
#include "tools/host/event_follower.h"
#include "tools/host/report.h"
#include "tools/host/run_totals.h"
#include "tools/readings/texts.h"

namespace tavistro::host {
namespace {

using namespace readings;

TEST(Texts, EveryCodeOfTheInterfaceHasItsOwnText) {
    const struct {
        std::string_view (*text)(std::uint32_t);
        std::uint32_t first;
        std::uint32_t last;
        std::uint32_t unused;
    } tables[] = {
        {state_text, TAVISTRO_STATE_IDLE, TAVISTRO_STATE_FAILED, 99},
        {level_text, TAVISTRO_LEVEL_NONE, TAVISTRO_LEVEL_ERROR, 99},
        {category_text, TAVISTRO_CATEGORY_ENGINE, TAVISTRO_CATEGORY_COMPATIBILITY, 99},
        {event_kind_text, TAVISTRO_EVENT_RECOVERY_REQUESTED, TAVISTRO_EVENT_GAVE_UP, 99},
        {error_text, TAVISTRO_ERROR_NONE, TAVISTRO_ERROR_SERVER_INCOMPATIBLE, 8},
        {message_text, TAVISTRO_MESSAGE_NONE, TAVISTRO_MESSAGE_SERVER_INCOMPATIBLE, 99},
    };
    for (const auto& table : tables) {
        std::set<std::string_view> seen;
        for (std::uint32_t code = table.first; code <= table.last; ++code) {
            if (code == table.unused) continue;
            EXPECT_NE(table.text(code), "unknown") << code;
            EXPECT_TRUE(seen.insert(table.text(code)).second) << table.text(code);
        }
        EXPECT_EQ(table.text(table.last + 1), "unknown");
    }
    EXPECT_EQ(error_text(8), "unknown");

    tavistro_engine_state state{};
    state.error_code = TAVISTRO_ERROR_CONFIG_INVALID;
    state.error_detail = TAVISTRO_MESSAGE_CONFIG_NOT_LOADED;
    EXPECT_TRUE(failure_text(state, "my.ini").ends_with("run: tavistro-host check my.ini"));
}

/// A record whose history ends with the event before `next_sequence`.
tavistro_engine_state record_with_events(std::uint64_t next_sequence, std::uint32_t count) {
    tavistro_engine_state state{};
    state.event_count = count;
    for (std::uint32_t i = 0; i < count; ++i)
        state.events[i].sequence = next_sequence - count + i;
    return state;
}

TEST(EventFollower, ShowsEveryEventOnceAndCountsThoseThatWereMissed) {
    EventFollower follower;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> shown;  // sequence, missed before
    for (const auto& record :
         {record_with_events(1, 0), record_with_events(3, 2), record_with_events(3, 2),
          record_with_events(4, 3), record_with_events(14, 8), record_with_events(14, 8)}) {
        for (const NewEvent& news : follower.take_new(record)) {
            shown.emplace_back(news.event.sequence, news.missed_before);
        }
    }
    const decltype(shown) expected = {{1, 0}, {2, 0},  {3, 0},  {6, 2},  {7, 0}, {8, 0},
                                      {9, 0}, {10, 0}, {11, 0}, {12, 0}, {13, 0}};
    EXPECT_EQ(shown, expected);
}

TEST(RunTotals, GoOnWhereTheBlockStartsAnew) {
    RunTotals totals;
    const struct {
        std::uint64_t rendered_frames;
        std::uint32_t dropped, in_all;
    } reports[] = {{0, 0, 0},      {100, 255, 255}, {50, 173, 428},
                   {60, 180, 435}, {70, 60, 495},   {10, 60, 555}};
    for (const auto& report : reports) {
        tavistro_stats_block block{};
        block.rendered_frames = report.rendered_frames;
        block.capture_dropped = report.dropped;
        EXPECT_EQ(totals.add(block).capture_dropped, report.in_all) << report.in_all;
    }
}

TEST(JsonReport, WritesOneObjectPerLineWithTheFieldsThatScriptsRead) {
    std::ostringstream out;
    const auto report = make_json_report(out);
    tavistro_engine_state state{};
    state.state = TAVISTRO_STATE_RUNNING;
    state.device_sample_rate = 44100;
    state.output_meter_count = 1;
    state.output_meters[0] = {5, 250};
    tavistro_stats_block stats{};
    stats.ratio_ppm = -20;
    stats.rendered_frames = 1;
    report->state_changed(0.5, state);
    report->event(0.6, {record_with_events(8, 1).events[0], 2});
    report->status(1.0, state, std::nullopt);
    report->summary({2.0, 0.5, state, stats});
    report->summary({2.0, 0.5, state, std::nullopt});

    const std::pair<const char*, const char*> expected[] = {
        {"state", R"({"state": 3, "state_text": "Running"})"},
        {"event", R"({"sequence": 7, "missed_before": 2})"},
        {"status", R"({"device_sample_rate": 44100, "stats": null,
                       "output_meters": [{"channel": 5, "peak_permille": 250}]})"},
        {"summary", R"({"cpu_seconds_per_second": 0.25, "stats": {"ratio_ppm": -20}})"},
        {"summary", R"({"cpu_seconds_per_second": null})"}};
    std::istringstream lines(out.str());
    for (const auto& [type, fields] : expected) {
        std::string line;
        std::getline(lines, line);
        const auto object = nlohmann::json::parse(line);
        EXPECT_EQ(object["type"], type);
        auto merged = object;
        merged.update(nlohmann::json::parse(fields), true);
        EXPECT_EQ(merged, object) << fields;
    }
}

/// Whether a line of these words, however far apart, is listed.
bool lists(const std::ostringstream& out, const std::string& words) {
    std::istringstream lines(out.str());
    for (std::string line; std::getline(lines, line);) {
        std::istringstream parts(line);
        std::string joined;
        for (std::string part; parts >> part;)
            joined += (joined.empty() ? "" : " ") + part;
        if (joined == words) return true;
    }
    return false;
}

TEST(CheckCommand, ListsTheSettingsOfTheExampleWithTheirOrigin) {
    std::ostringstream out;
    std::ostringstream errors;
    ASSERT_EQ(check_config(TAVISTRO_EXAMPLES "/loopback.ini", out, errors), 0) << errors.str();
    EXPECT_EQ(errors.str(), "");
    for (const char* setting :
         {"server_port 28010 file 1..65535", "announce_period_ms 1000 default 1..3999",
          "loopback_device 1 file", "capture_capacity_blocks 12 derived"})
        EXPECT_TRUE(lists(out, setting)) << setting;
}

/// Runs the command on a file of this text; `out` and `errors` are what it says.
int check_text(const std::string& text, std::ostream& out, std::ostream& errors) {
    // Of this test alone: others run at the same time.
    const std::string path = testing::TempDir() + "tavistro_host_" +
                             testing::UnitTest::GetInstance()->current_test_info()->name() + ".ini";
    std::ofstream(path, std::ios::binary) << text;
    const int code = check_config(path, out, errors);
    std::filesystem::remove(path);
    return code;
}

TEST(CheckCommand, NamesTheMisspeltKeyBehindAFaultAndKeepsColumnsApart) {
    const std::string text = "[network]\nserver_ip=auto\nservre_port=1\nclient_id=1\n";
    std::ostringstream out, errors;
    EXPECT_EQ(check_text(text, out, errors), 1);
    EXPECT_EQ(out.str(), "");
    EXPECT_EQ(errors.str(),
              "Missing required key [network] server_port\n"
              "warning: line 3: unknown key 'servre_port' in [network]: did you mean "
              "'server_port'?\n");

    const std::string name(40, 'n');
    EXPECT_EQ(check_text(text + "server_port=1\n[asio]\ndriver_name=" + name, out, errors), 0);
    EXPECT_TRUE(lists(out, "driver_name " + name + " file not empty unless loopback"));
}

TEST(ConfigWarnings, TellWhatTheLoaderKeepsToItself) {
    using namespace std::string_literals;
    const std::string utf16 =
        "the file is saved as UTF-16: save it as UTF-8 without a byte-order mark";
    const std::string quotes = " are taken for a part of the value: leave them out";
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"", {}},
        {"; note\n[network]\r\nServer_IP = auto ; \"quoted\"\r\n", {}},
        {"\xFF\xFE[\0n\0"s, {utf16}},
        {"[\0n\0=\0"s, {utf16}},
        {"\0[\0n"s, {utf16}},
        {"\xEF\xBB\xBF[network]\nserver_ip=auto\nx=",
         {"the file begins with a UTF-8 byte-order mark, which spoils its first line: save it "
          "without",
          "line 3: unknown key 'x' in [network]: [network] expects server_ip, server_port, "
          "client_id, discovery_timeout_ms, discovery_broadcast"}},
        {"server_port=1\nzzzzzzzz=1\n",
         {"line 1: 'server_port' has no effect above every section: it belongs in [network]",
          "line 2: unknown key 'zzzzzzzz' above every section"}},
        {"[netwrok]\nserver_ip=\nother=\n[elsewhere]\nother=\n",
         {"line 1: unknown section [netwrok]: did you mean [network]?",
          "line 2: 'server_ip' has no effect in [netwrok]: it belongs in [network]",
          "line 4: unknown section [elsewhere]: its keys are ignored"}},
        {"[latency]\nlatncy=6\n[socket]\nclent_id=1\n[test]\nzzzzzzzz=\n",
         {"line 2: unknown key 'latncy' in [latency]: [latency] expects client_latency_blocks",
          "line 4: unknown key 'clent_id' in [socket]: did you mean 'client_id' in [network]?",
          "line 6: unknown key 'zzzzzzzz' in [test]"}},
        {"[network\nunjudged=1\n[asio]\ndriver_name='a'\ninput_map=\xE2\x80\x9C"
         "0\n"
         "Driver_Name=My \"best\"\n",
         {"line 4: the quotes in 'driver_name'" + quotes,
          "line 5: the quotes in 'input_map'" + quotes,
          "line 6: 'driver_name' was given in line 4 already: the last one counts"}},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(config_warnings(text), expected) << text;
}

}  // namespace
}  // namespace tavistro::host
