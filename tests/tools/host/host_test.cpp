// What tavistro-host says of codes, runs and configurations.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "tools/host/commands.h"
#include "tools/host/config_warnings.h"
#include "tools/host/report.h"
#include "tools/readings/read_speed.h"
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
}

TEST(Texts, AFailureIsToldWithItsReasonAndWhatToDo) {
    const auto text = [](std::uint32_t error, std::uint32_t detail) {
        tavistro_engine_state state{};
        state.error_code = error;
        state.error_detail = detail;
        state.status_message = TAVISTRO_MESSAGE_STOPPED;
        return failure_text(state, "my.ini");
    };
    EXPECT_EQ(
        text(TAVISTRO_ERROR_CONFIG_INVALID, TAVISTRO_MESSAGE_CONFIG_NOT_LOADED),
        "The configuration could not be loaded. For the reason run: tavistro-host check my.ini");
    EXPECT_EQ(
        text(TAVISTRO_ERROR_SERVER_INCOMPATIBLE, TAVISTRO_MESSAGE_SERVER_INCOMPATIBLE),
        "The server is not compatible with this engine. Server and engine must speak the same "
        "protocol version.");
    EXPECT_EQ(text(TAVISTRO_ERROR_ALREADY_STARTED, TAVISTRO_MESSAGE_ALREADY_STARTED),
              "A run was started already and not stopped yet.");
}

TEST(ReadSpeed, IsTheMeasuredRatioWithTheCorrectionOfTheFillWithinBounds) {
    const auto speed = [](std::uint32_t low, std::uint32_t high, std::uint32_t target,
                          std::int32_t ratio_ppm) {
        tavistro_stats_block stats{};
        stats.min_frames = low;
        stats.max_frames = high;
        stats.target_frames = target;
        stats.ratio_ppm = ratio_ppm;
        return read_speed_ppm(stats);
    };
    EXPECT_EQ(speed(100, 200, 100, 20), 20 + 350 * 0.5);
    EXPECT_EQ(speed(0, 0, 100, -20), -20 - 350);
    EXPECT_EQ(speed(900, 900, 100, 4000), 4500);
    EXPECT_EQ(speed(0, 0, 100, -4400), -4500);
    EXPECT_EQ(speed(5, 5, 0, 20), 0) << "no stream yet";
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
    tavistro_stats_block all{};
    // Frames played and what each count and the longest way are then; one count alone goes back
    // last.
    for (const auto& [frames, count, longest_us] :
         std::initializer_list<std::array<std::uint32_t, 3>>{{0, 0, 0},
                                                             {100, 255, 900},
                                                             {50, 173, 700},
                                                             {60, 180, 700},
                                                             {10, 200, 500},
                                                             {20, 100, 0}}) {
        tavistro_stats_block block{};
        block.rendered_frames = frames;
        block.underruns = block.playback_dropped = block.capture_dropped = count;
        block.overruns = 2 * count;
        block.server_to_output_max_us = longest_us;
        all = totals.add(block);
    }
    EXPECT_EQ(all.rendered_frames, 100U + 60 + 10 + 20);
    for (const std::uint32_t count :
         {all.underruns, all.overruns / 2, all.playback_dropped, all.capture_dropped})
        EXPECT_EQ(count, 255U + 180 + 200 + 100);
    EXPECT_EQ(all.server_to_output_max_us, 900U);
}

/// A run in which every number of a line is another.
std::string told_by(std::unique_ptr<Report> (*make_report)(std::ostream&)) {
    std::ostringstream out;
    const auto report = make_report(out);
    tavistro_engine_state state = record_with_events(8, 1);
    state.state = TAVISTRO_STATE_RUNNING;
    state.status_level = TAVISTRO_LEVEL_WARNING;
    state.status_category = TAVISTRO_CATEGORY_UNDERRUN;
    state.status_message = TAVISTRO_MESSAGE_UNDERRUNS;
    state.client_id = 77;
    state.stream_sample_rate = 48000;
    state.stream_block_frames = 128;
    state.device_sample_rate = 44100;
    state.device_block_frames = 64;
    state.input_meter_count = 2;
    state.input_meters[1] = {1, 500};
    state.output_meter_count = 3;
    state.output_meters[0] = {2, 100};
    state.output_meters[1] = {5, 250};
    state.events[0] = {
        7, 99, TAVISTRO_EVENT_ATTEMPT_FAILED,      TAVISTRO_CATEGORY_AUDIO_DEVICE,
        2, 12, TAVISTRO_ERROR_AUDIO_DEVICE_FAILED, TAVISTRO_MESSAGE_EVENT_ASIO_FAILED};
    tavistro_stats_block stats{};
    stats.ratio_ppm = -20;
    stats.playback_buffer_frames = 250;
    stats.min_frames = stats.max_frames = stats.target_frames = 256;
    stats.buffer_us = 5208;
    stats.rtt_last_us = 310;
    stats.rtt_max_us = 4567;
    stats.rtt_histogram[1] = 6;
    stats.underruns = 1;
    stats.overruns = 2;
    stats.playback_dropped = 3;
    stats.capture_dropped = 4;
    stats.rendered_frames = 5'000'000'000;
    report->state_changed(0.5, state);
    report->event(0.6, {state.events[0], 2});
    report->status(1.0, state, std::nullopt);
    state.output_meter_count = 0;
    state.status_level = TAVISTRO_LEVEL_HEALTHY;
    state.status_message = TAVISTRO_MESSAGE_RUNNING;
    state.device_sample_rate = 0;
    report->status(1234.0, state, stats);
    state.state = TAVISTRO_STATE_STOPPED;
    report->summary({2.0, 0.5, state, stats});
    stats.rendered_frames = 0;
    report->summary({2.0, 0.5, state, stats});
    state.error_code = TAVISTRO_ERROR_STATS_BLOCK_FAILED;
    report->summary({2.0, 0.5, state, std::nullopt});
    return out.str();
}

TEST(HumanReport, TellsARunInLines) {
    EXPECT_EQ(told_by(make_human_report),
              R"(    0.500 s  state   Running     warning: The playback buffer ran empty
    0.600 s  event   2 events were missed
    0.600 s  event   #7 ASIO attempt failed (audio device, attempt failed, attempt 2 of 12, error: audio device failed)
    1.000 s  status  Running, warning: The playback buffer ran empty  48000/128 on 44100/64  in silent -6.0  out -12.0 max of 3 dBFS
 1234.000 s  status  Running   48000/128 on unknown  in silent -6.0  out none dBFS  buffer 250/256 (5.21 ms) read -20 ppm  rtt 0.31 ms  drops 3+4

summary
  ran         2.0 s
  underruns   1
  overruns    2
  drops       3 playback, 4 capture
  max rtt     4.57 ms
  cpu         0.250 s per second of audio
  last state  Stopped
  last error  none

summary
  ran         2.0 s
  underruns   1
  overruns    2
  drops       3 playback, 4 capture
  max rtt     4.57 ms
  last state  Stopped
  last error  none

summary
  ran         2.0 s
  statistics  none were published
  last state  Stopped
  last error  statistics block failed
)");
}

TEST(JsonReport, HasOneObjectPerLineWithTheNamesOfTheHeaders) {
    std::istringstream lines(told_by(make_json_report));
    const std::string state =
        R"(,"state":3,"state_text":"Running","status_level":2,"status_level_text":"warning",)"
        R"("status_category":5,"status_category_text":"underrun","error_code":0,)"
        R"("error_code_text":"none","error_detail":0,"error_detail_text":"none",)"
        R"("status_message":37,"status_message_text":"The playback buffer ran empty",)"
        R"("client_id":77,"stream_sample_rate":48000,"stream_block_frames":128,)"
        R"("device_sample_rate":44100,"device_block_frames":64)";
    const std::vector<std::string> parts_of_lines[] = {
        {R"({"type":"state","time_s":0.5)" + state + "}"},
        {R"({"type":"event","time_s":0.6,"missed_before":2,"sequence":7,"system_time_ms":99,)"
         R"("kind":3,"kind_text":"attempt failed","subject":9,"subject_text":"audio device",)"
         R"("attempt":2,"max_attempts":12,"error_code":7,"error_code_text":"audio device failed",)"
         R"("message":43,"message_text":"ASIO attempt failed"})"},
        {R"({"type":"status","time_s":1.0)" + state +
         R"(,"input_meters":[{"channel":0,"peak_permille":0},{"channel":1,"peak_permille":500}],)"
         R"("output_meters":[{"channel":2,"peak_permille":100},{"channel":5,"peak_permille":250},)"
         R"({"channel":0,"peak_permille":0}],"stats":null})"},
        {R"("output_meters":[],"stats":{"state":0,"state_text":"Idle",)", R"("ratio_ppm":-20,)",
         R"("playback_buffer_frames":250,)", R"("rtt_histogram":[0,6,0,0,0,0,0,0,0,0],)",
         R"("rtt_last_us":310,)", R"("rendered_frames":5000000000}})"},
        {R"({"type":"summary","time_s":2.0,"state":6)",
         R"("cpu_seconds_per_second":0.25,"stats":{)"},
        {R"("cpu_seconds_per_second":null,"stats":{)"},
        {R"("cpu_seconds_per_second":null,"stats":null})"}};
    for (const auto& parts : parts_of_lines) {
        std::string line;
        std::getline(lines, line);
        for (const std::string& part : parts)
            EXPECT_NE(line.find(part), std::string::npos) << part << "\nin " << line;
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
          "loopback_device 1 file", "prebuffer_blocks 6 derived", "max_queue_blocks 10 derived",
          "capture_capacity_blocks 12 derived", "capture_target_blocks 2 fixed"})
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
        {"\xFE\xFF\1["s, {utf16}},
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
        {"[NETWORK]\nserver_port=1\n[Socket]\n# "
         "x=1\n[a]\nclient=1\n[protocol]\nannounce_period=1\n",
         {"line 5: unknown section [a]: its keys are ignored",
          "line 8: unknown key 'announce_period' in [protocol]: did you mean "
          "'announce_period_ms'?"}},
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
