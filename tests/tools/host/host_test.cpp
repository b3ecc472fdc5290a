// What tavistro-host says of codes, runs and configurations.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "tools/host/commands.h"
#include "tools/host/config_warnings.h"
#include "tools/host/report.h"

namespace tavistro::host {
namespace {

TEST(EventFollower, ShowsEveryEventOnceAndCountsThoseThatWereMissed) {
    EventFollower follower;
    std::ostringstream told;
    for (const std::uint64_t last : {0U, 2U, 3U, 13U, 13U}) {
        tavistro_engine_state state{};
        for (std::uint64_t sequence = last > 8 ? last - 7 : 1; sequence <= last; ++sequence)
            state.events[state.event_count++].sequence = sequence;
        for (const NewEvent& news : follower.take_new(state))
            told << news.missed_before << '<' << news.event.sequence << ' ';
    }
    EXPECT_EQ(told.str(), "0<1 0<2 0<3 2<6 0<7 0<8 0<9 0<10 0<11 0<12 0<13 ");
}

TEST(RunTotals, GoOnWhereTheBlockStartsAnew) {
    RunTotals totals;
    tavistro_stats_block all{};
    // Frames played and what was counted; one of them alone goes back, too.
    for (const auto& [frames, count] :
         {std::pair(0U, 0U), {100, 255}, {50, 173}, {60, 180}, {10, 200}, {20, 100}}) {
        tavistro_stats_block block{};
        block.rendered_frames = frames;
        block.underruns = block.overruns = block.server_to_output_max_us = count;
        all = totals.add(block);
    }
    EXPECT_EQ(all.rendered_frames, 100U + 60 + 10 + 20);
    EXPECT_EQ(all.underruns, 255U + 180 + 200 + 100);
    EXPECT_EQ(all.overruns, all.underruns);
    EXPECT_EQ(all.server_to_output_max_us, 255U);
}

/// A run in which no two numbers of a line are the same.
std::string told_by(std::unique_ptr<Report> (*make_report)(std::ostream&)) {
    std::ostringstream out;
    const auto report = make_report(out);
    tavistro_engine_state state{};
    state.state = TAVISTRO_STATE_RUNNING;
    state.status_level = TAVISTRO_LEVEL_WARNING;
    state.status_message = TAVISTRO_MESSAGE_UNDERRUNS;
    state.stream_sample_rate = 48000;
    state.stream_block_frames = 128;
    state.device_block_frames = 64;
    state.input_meter_count = 2;
    state.output_meter_count = 3;
    state.input_meters[1] = {1, 500};
    state.output_meters[0] = {2, 100};
    state.output_meters[1] = {5, 250};
    tavistro_stats_block stats{};
    stats.ratio_ppm = -20;
    stats.min_frames = 100;
    stats.max_frames = 300;
    stats.target_frames = 256;
    stats.rtt_last_us = 310;
    stats.rtt_max_us = 4567;
    stats.playback_dropped = 3;
    stats.capture_dropped = 4;
    stats.rendered_frames = 5'000'000'000;
    report->event(0.6,
                  {{7, 99, TAVISTRO_EVENT_ATTEMPT_FAILED, TAVISTRO_CATEGORY_AUDIO_DEVICE, 2, 12,
                    TAVISTRO_ERROR_AUDIO_DEVICE_FAILED, TAVISTRO_MESSAGE_EVENT_ASIO_FAILED},
                   3});
    report->status(1.0, state, std::nullopt);
    state.status_message = TAVISTRO_MESSAGE_RUNNING;
    state.output_meter_count = 0;
    state.device_sample_rate = 44100;
    report->status(1234.0, state, stats);
    report->summary({2.0, 0.5, state, stats});
    return out.str();
}

TEST(HumanReport, TellsARunInLines) {
    EXPECT_EQ(told_by(make_human_report),
              R"(    0.600 s  event   3 events were missed
    0.600 s  event   #7 ASIO attempt failed (audio device, attempt failed, attempt 2 of 12, error: audio device failed)
    1.000 s  status  Running, warning: The playback buffer ran empty  48000/128 on unknown  in silent -6.0  out -12.0 max of 3 dBFS
 1234.000 s  status  Running   48000/128 on 44100/64  in silent -6.0  out none dBFS  buffer 0/256 (0.00 ms) read -97 ppm  rtt 0.31 ms  drops 3+4

summary
  ran         2.0 s
  underruns   0
  overruns    0
  drops       3 playback, 4 capture
  max rtt     4.57 ms
  cpu         0.250 s per second of audio
  last state  Running
  last error  none
)");
}

TEST(JsonReport, HasOneObjectPerLineWithTheNamesOfTheHeaders) {
    const std::string text = told_by(make_json_report);
    std::size_t at = 0;
    for (const char* part :
         {R"({"type":"event","time_s":0.6,"missed_before":3,"sequence":7,"system_time_ms":99,)",
          R"("error_code":7,"error_code_text":"audio device failed","message":43,)",
          "\n"
          R"({"type":"status","time_s":1.0,"state":3,"state_text":"Running",)",
          R"("input_meters":[{"channel":0,"peak_permille":0},{"channel":1,"peak_permille":500}],)",
          R"("stats":null})", R"("output_meters":[],"stats":{"state":0,"state_text":"Idle",)",
          R"("ratio_ppm":-20,)", R"("rendered_frames":5000000000}})",
          "\n"
          R"({"type":"summary","time_s":2.0,"state":3,)",
          R"(_second":0.25,"stats":{)"}) {
        at = text.find(part, at);
        ASSERT_NE(at, std::string::npos) << part << "\nin " << text;
    }
}

TEST(CheckCommand, ListsEverySettingWithItsOriginAndNamesTheMisspeltKeyBehindAFault) {
    std::ostringstream out, errors;
    EXPECT_EQ(check_config(TAVISTRO_EXAMPLES "/loopback.ini", out, errors), 0) << errors.str();
    for (const char* line :
         {"\n[asio]\n  driver_name                                              file     ",
          "  announce_period_ms                   1000                default  1..3999\n",
          "  max_queue_blocks                     10                  derived\n"})
        EXPECT_NE(out.str().find(line), std::string::npos) << line << "in\n" << out.str();
    const std::string path = testing::TempDir() + "tavistro_host_test.ini";
    std::ofstream(path) << "[network]\nserver_ip=auto\nservre_port=1\n";
    EXPECT_EQ(check_config(path, out, errors), 1);
    EXPECT_EQ(errors.str(),
              "Missing required key [network] server_port\nwarning: line 3: unknown key "
              "'servre_port' in [network]: did you mean 'server_port'?\n");
    std::filesystem::remove(path);
}

TEST(ConfigWarnings, TellWhatTheLoaderKeepsToItself) {
    using namespace std::string_literals;
    for (const std::string& utf16 : {"\xFF\xFE[\0n\0"s, "\xFE\xFF\1["s, "[\0n\0=\0"s})
        EXPECT_TRUE(config_warnings(utf16).at(0).starts_with("the file is saved as UTF-16"));
    const std::vector<std::string> expected{
        "the file begins with a UTF-8 byte-order mark, which spoils its first line: save it "
        "without",
        "line 1: 'server_port' has no effect above every section: it belongs in [network]",
        "line 4: unknown key 'x' in [network]: [network] expects server_ip, server_port, "
        "client_id, discovery_timeout_ms, discovery_broadcast",
        "line 5: unknown key 'clent_id' in [network]: did you mean 'client_id'?",
        "line 8: unknown section [a]: its keys are ignored",
        "line 10: unknown section [netwrok]: did you mean [network]?",
        "line 14: the quotes in 'driver_name' are taken for a part of the value: leave them out",
        "line 15: 'driver_name' was given in line 14 already: the last one counts"};
    EXPECT_EQ(config_warnings("\xEF\xBB\xBFserver_port=1\n"
                              "[NETWORK]\r\nServer_IP = auto ; \"quoted\"\r\nx=\nclent_id=1\n"
                              "[Socket]\n# x=1\n[a]\nclient=1\n[netwrok]\n[network\nunjudged=1\n"
                              "[asio]\ndriver_name='a'\nDriver_Name=My \"best\"\n"),
              expected);
}

}  // namespace
}  // namespace tavistro::host
