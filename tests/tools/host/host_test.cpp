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

TEST(Texts, EveryCodeOfTheInterfaceHasItsOwn) {
    const std::pair<std::string_view (*)(std::uint32_t), std::size_t> known[] = {
        {state_text, 8},      {level_text, 5},  {category_text, 13},
        {event_kind_text, 5}, {error_text, 11}, {message_text, 53}};
    for (const auto& [text, codes] : known) {
        std::set<std::string_view> texts;
        for (std::uint32_t code = 0; code < 100; ++code)
            EXPECT_TRUE(text(code) == "unknown" || texts.insert(text(code)).second) << text(code);
        EXPECT_EQ(texts.size(), codes);
    }
    EXPECT_EQ(level_text(TAVISTRO_LEVEL_PENDING), "pending");
}

TEST(Texts, AFailureIsToldWithItsReasonAndWhatToDo) {
    tavistro_engine_state state{};
    state.status_message = TAVISTRO_MESSAGE_STOPPED;
    state.error_code = TAVISTRO_ERROR_NO_CONFIG_PATH;
    state.error_detail = TAVISTRO_MESSAGE_NO_CONFIG_PATH;
    EXPECT_EQ(failure_text(state, ""),
              "No configuration path was given. Name a configuration file.");
    state.error_code = TAVISTRO_ERROR_ALREADY_STARTED;
    EXPECT_EQ(failure_text(state, ""), "No configuration path was given.");
}

TEST(ReadSpeed, IsTheMeasuredRatioWithTheCorrectionOfTheFillWithinBounds) {
    tavistro_stats_block stats{};
    stats.ratio_ppm = -20;
    EXPECT_EQ(read_speed_ppm(stats), 0) << "no stream yet";
    stats.target_frames = 100;
    EXPECT_NEAR(read_speed_ppm(stats), -20 - 350, 1e-6);
    stats.min_frames = 100;
    stats.max_frames = 200;
    EXPECT_NEAR(read_speed_ppm(stats), -20 + 350 * 0.5, 1e-6);
    stats.max_frames = 3000;
    EXPECT_NEAR(read_speed_ppm(stats), 4500, 1e-6);
}

TEST(EventFollower, ShowsEveryEventOnceAndCountsThoseThatWereMissed) {
    EventFollower follower;
    std::vector<std::uint64_t> shown, missed;
    for (const auto& sequences : std::vector<std::vector<std::uint64_t>>{
             {}, {1, 2}, {1, 2, 3}, {6, 7, 8, 9, 10, 11, 12, 13}, {6, 7, 8, 9, 10, 11, 12, 13}}) {
        tavistro_engine_state state{};
        for (const std::uint64_t sequence : sequences)
            state.events[state.event_count++].sequence = sequence;
        for (const NewEvent& news : follower.take_new(state)) {
            shown.push_back(news.event.sequence);
            missed.push_back(news.missed_before);
        }
    }
    EXPECT_EQ(shown, (std::vector<std::uint64_t>{1, 2, 3, 6, 7, 8, 9, 10, 11, 12, 13}));
    EXPECT_EQ(missed, (std::vector<std::uint64_t>{0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(RunTotals, GoOnWhereTheBlockStartsAnew) {
    RunTotals totals;
    tavistro_stats_block all{};
    // Frames played and what was counted; one of them alone goes back, too.
    const std::pair<std::uint64_t, std::uint32_t> reports[] = {{0, 0},    {100, 255}, {50, 173},
                                                               {60, 180}, {10, 200},  {20, 100}};
    for (const auto& [frames, count] : reports) {
        tavistro_stats_block block{};
        block.rendered_frames = frames;
        block.underruns = block.overruns = block.playback_dropped = block.capture_dropped = count;
        block.server_to_output_max_us = count;
        all = totals.add(block);
    }
    EXPECT_EQ(all.rendered_frames, 100U + 60 + 10 + 20);
    for (const auto count :
         {all.underruns, all.overruns, all.playback_dropped, all.capture_dropped})
        EXPECT_EQ(count, 255U + 180 + 200 + 100);
    EXPECT_EQ(all.server_to_output_max_us, 255U);
}

/// A run in which no two numbers of a line are the same.
std::string told_by(std::unique_ptr<Report> (*make_report)(std::ostream&)) {
    std::ostringstream out;
    const auto report = make_report(out);
    const NewEvent event{
        {7, 99, TAVISTRO_EVENT_ATTEMPT_FAILED, TAVISTRO_CATEGORY_AUDIO_DEVICE, 2, 12,
         TAVISTRO_ERROR_AUDIO_DEVICE_FAILED, TAVISTRO_MESSAGE_EVENT_ASIO_FAILED},
        3};
    tavistro_engine_state state{TAVISTRO_STATE_RECORD_VERSION,
                                TAVISTRO_STATE_RUNNING,
                                TAVISTRO_LEVEL_WARNING,
                                TAVISTRO_CATEGORY_UNDERRUN,
                                0,
                                0,
                                TAVISTRO_MESSAGE_UNDERRUNS,
                                77,
                                48000,
                                128,
                                44100,
                                64,
                                0,
                                8,
                                2,
                                3,
                                1,
                                {},
                                {{0, 0}, {1, 500}},
                                {{2, 100}, {5, 250}}};
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
    report->event(0.6, event);
    report->status(1.0, state, std::nullopt);
    state.status_message = TAVISTRO_MESSAGE_RUNNING;
    state.output_meter_count = state.device_sample_rate = 0;
    report->status(1234.0, state, stats);
    report->summary({2.0, 0.5, state, stats});
    report->summary({2.0, 0.5, state, std::nullopt});
    return out.str();
}

TEST(HumanReport, TellsARunInLines) {
    EXPECT_EQ(told_by(make_human_report),
              R"(    0.500 s  state   Running     warning: The playback buffer ran empty
    0.600 s  event   3 events were missed
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
  last state  Running
  last error  none

summary
  ran         2.0 s
  statistics  none were published
  last state  Running
  last error  none
)");
}

TEST(JsonReport, HasOneObjectPerLineWithTheNamesOfTheHeaders) {
    std::istringstream lines(told_by(make_json_report));
    const std::vector<std::string> parts_of_lines[] = {
        {R"({"type":"state","time_s":0.5,"state":3,"state_text":"Running","status_level":2,)",
         R"("status_message":37,"status_message_text":"The playback buffer ran empty",)",
         R"("stream_block_frames":128,"device_sample_rate":44100,"device_block_frames":64})"},
        {R"({"type":"event","time_s":0.6,"missed_before":3,"sequence":7,"system_time_ms":99,)",
         R"("error_code":7,"error_code_text":"audio device failed","message":43,)"},
        {R"("input_meters":[{"channel":0,"peak_permille":0},{"channel":1,"peak_permille":500}],)",
         R"("output_meters":[{"channel":2,"peak_permille":100},{"channel":5,"peak_permille":250},)",
         R"({"channel":0,"peak_permille":0}],"stats":null})"},
        {R"("output_meters":[],"stats":{"state":0,"state_text":"Idle",)", R"("ratio_ppm":-20,)",
         R"("rtt_histogram":[0,6,0,0,0,0,0,0,0,0],)", R"("rendered_frames":5000000000}})"},
        {R"({"type":"summary","time_s":2.0,"state":3,)", R"(_second":0.25,"stats":{)"},
        {R"("cpu_seconds_per_second":null,"stats":null})"}};
    for (const auto& parts : parts_of_lines) {
        std::string line;
        std::getline(lines, line);
        for (const std::string& part : parts)
            EXPECT_NE(line.find(part), std::string::npos) << part << "\nin " << line;
    }
}

TEST(CheckCommand, ListsEverySettingWithItsOriginAndNamesTheMisspeltKeyBehindAFault) {
    const std::string path = testing::TempDir() + "tavistro_host_test.ini";
    const std::string name(40, 'n');
    std::ofstream(path) << "[network]\nserver_ip=auto\nserver_port=1\nclient_id=1\n[asio]\n"
                           "driver_name=" +
                               name + "\ninput_map=0\noutput_map=0\n";
    std::ostringstream out, errors;
    EXPECT_EQ(check_config(path, out, errors), 0);
    EXPECT_EQ(errors.str(), "");
    for (const std::string& line : std::initializer_list<std::string>{
             "[network]\n  server_ip                            auto                file     auto "
             "or ",
             "\n[asio]\n  driver_name                          " + name + "  file     not empty ",
             "  announce_period_ms                   1000                default  1..3999\n",
             "  max_queue_blocks                     10                  derived\n"})
        EXPECT_NE(out.str().find(line), std::string::npos) << line << "in\n" << out.str();
    std::ofstream(path) << "[network]\nserver_ip=auto\nservre_port=1\n";
    out.str("");
    EXPECT_EQ(check_config(path, out, errors), 1);
    EXPECT_EQ(
        out.str() + errors.str(),
        "Missing required key [network] server_port\nwarning: line 3: unknown key 'servre_port' "
        "in [network]: did you mean 'server_port'?\n");
    std::filesystem::remove(path);
}

TEST(ConfigWarnings, TellWhatTheLoaderKeepsToItself) {
    using namespace std::string_literals;
    const std::string utf16 =
        "the file is saved as UTF-16: save it as UTF-8 without a byte-order mark";
    const std::string quotes = " are taken for a part of the value: leave them out";
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"; note\n[network]\r\nServer_IP = auto ; \"quoted\"\r\n", {}},
        {"\xFF\xFE[\0n\0"s, {utf16}},
        {"\xFE\xFF\1["s, {utf16}},
        {"[\0n\0=\0"s, {utf16}},
        {"\xEF\xBB\xBF[network]\nserver_ip=auto\nx=",
         {"the file begins with a UTF-8 byte-order mark, which spoils its first line: save it "
          "without",
          "line 3: unknown key 'x' in [network]: [network] expects server_ip, server_port, "
          "client_id, discovery_timeout_ms, discovery_broadcast"}},
        {"server_port=1\nzzzzzzzz=1\n",
         {"line 1: 'server_port' has no effect above every section: it belongs in [network]",
          "line 2: unknown key 'zzzzzzzz' above every section"}},
        {"[NETWORK]\nserver_port=1\n[Socket]\n# "
         "x=1\n[a]\nclient=1\n[protocol]\nannounce__period_mss=1\n",
         {"line 5: unknown section [a]: its keys are ignored",
          "line 8: unknown key 'announce__period_mss' in [protocol]: did you mean "
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
