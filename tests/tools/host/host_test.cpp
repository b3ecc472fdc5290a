// What tavistro-host says of runs, configurations and servers.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <tuple>
#include <utility>

#include "support/scripted_server.h"
#include "tools/host/commands.h"
#include "tools/host/report.h"
#include "tools/host/server_survey.h"
#include "tools/host/start_advice.h"
#include "tools/readings/fields.h"

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
    std::int64_t next = 0;
    for (const readings::Field& field : readings::stats_fields())
        if (field.type != readings::FieldType::histogram)
            readings::set_number(&stats, field, next += 101);
    stats.rendered_frames = 5'000'000'000;
    report->event(0.6,
                  {{7, 99, TAVISTRO_EVENT_ATTEMPT_FAILED, TAVISTRO_CATEGORY_AUDIO_DEVICE, 2, 12,
                    TAVISTRO_ERROR_AUDIO_DEVICE_FAILED, TAVISTRO_MESSAGE_EVENT_ASIO_FAILED},
                   3});
    report->status(1.0, state, std::nullopt);
    state.status_level = TAVISTRO_LEVEL_HEALTHY;
    state.status_message = TAVISTRO_MESSAGE_RUNNING;
    state.output_meter_count = 0;
    state.device_sample_rate = 44100;
    report->status(1234.0, state, RunStats{stats, 0.5, 0.25});
    report->summary({2.0, 0.5, state, stats});
    return out.str();
}

TEST(HumanReport, TellsARunInLines) {
    EXPECT_EQ(told_by(make_human_report),
              R"(    0.600 s  event   3 events were missed
    0.600 s  event   #7 ASIO attempt failed (audio device, attempt failed, attempt 2 of 12, error: audio device failed)
    1.000 s  status  warning: The playback buffer ran empty
    1.000 s  format  stream 48000 Hz, 128 frames; device not known yet
                               buffer/target    round        drops    out peaks     in peaks   speed
       time  state                        ms  trip ms       out/in         dBFS         dBFS     ppm
    1.000 s  Running, warning              -        -            -            -            -       -
 1234.000 s  status  Running normally
 1234.000 s  format  stream 48000 Hz, 128 frames; device 44100 Hz, 64 frames
 1234.000 s  Running                3.3/65.2     1.01    4040/4141         none    -inf -6.0   +3518

summary
  ran         2.0 s
  underruns   3838
  overruns    3939
  drops       4040 playback, 4141 capture
  max rtt     1.21 ms
  cpu         0.250 s per second of audio
  last state  Running
  last error  none
)");
}

TEST(HumanReport, FitsLinesOfStatusIn100ColumnsAndMarksOldNumbers) {
    std::ostringstream out;
    const auto report = make_human_report(out);
    RunStats stats{};
    for (const readings::Field& field : readings::stats_fields())
        if (field.type != readings::FieldType::histogram)
            readings::set_number(&stats.block, field, std::int64_t{2147483647});
    stats.block.ratio_ppm = -2147483647;
    tavistro_engine_state state{};
    state.state = TAVISTRO_STATE_RUNNING;
    state.stream_sample_rate = state.device_sample_rate = 384000;
    state.stream_block_frames = state.device_block_frames = 8192;
    for (std::uint32_t meters : {2U, 32U}) {
        state.input_meter_count = state.output_meter_count = meters;
        state.input_meters[1] = state.output_meters[0] = {0, 1};
        for (state.status_level = 0; state.status_level <= TAVISTRO_LEVEL_ERROR;
             ++state.status_level)
            for (const double age_s : {0.0, 4.0, 9999.4, 1e9}) {
                stats.playback_age_s = stats.round_trip_age_s = age_s;
                report->status(1e8, state, stats);
            }
    }
    EXPECT_NE(out.str().find("        stale 4 s    stale  2147M/2147M            -"),
              std::string::npos)
        << out.str();
    for (state.state = 0; state.state <= TAVISTRO_STATE_FAILED; ++state.state)
        for (state.status_message = 0; state.status_message < 70; ++state.status_message)
            report->status(1.0, state, {});
    std::istringstream lines(out.str());
    for (std::string line; std::getline(lines, line);)
        EXPECT_LE(line.size(), 100U) << line;
}

TEST(StatsAges, CountFromTheLastChangeOfWhatGoesOn) {
    StatsAges ages;
    tavistro_stats_block block{};
    for (const double time_s : {0.0, 1.0, 2.0, 3.0}) {
        block.rendered_frames = time_s < 2 ? 9 : 0;  // once the audio path has started anew
        block.rtt_last_us += 1;
        block.rtt_samples = time_s < 1 ? 1 : 2;
        ages.add(block, time_s);
    }
    EXPECT_EQ(ages.playback_s(3), 1);
    EXPECT_EQ(ages.round_trip_s(3), 2);
}

TEST(StartAdvice, NamesWhoWasAskedForAServerAndHowToAskAgain) {
    EngineConfig config;
    for (const auto& [server_ip, broadcast, told] :
         {std::tuple("Auto", true, "Asked: auto: 127.0.0.1 and 255.255.255.255, UDP port 28010. "),
          {"auto", false, "Asked: auto: 127.0.0.1, UDP port 28010. "},
          {"10.1.2.3", true, "answer: tavistro-host servers --address 10.1.2.3\n"},
          {"server", true, "server_ip = server is neither auto nor an IPv4 address.\n"}}) {
        config.client.server_ip = server_ip;
        config.client.discovery_broadcast = broadcast;
        const std::string text = StartAdvice(config).no_server();
        EXPECT_NE(text.find(told), std::string::npos) << text;
    }
}

TEST(JsonReport, HasOneObjectPerLineWithTheNamesOfTheHeaders) {
    const std::string text = told_by(make_json_report);
    std::size_t at = 0;
    for (const char* part :
         {R"({"type":"event","time_s":0.6,"missed_before":3,"sequence":7,"system_time_ms":99,)",
          R"("error_code":7,"error_code_text":"audio device failed",)", R"({"type":"status",)",
          R"("output_meters":[],"stats":{"state":101,"state_text":"unknown",)",
          R"("rtt_last_us":1010,)", R"("ratio_ppm":3535,)", R"("capture_dropped":4141,)",
          R"("rendered_frames":5000000000},"playback_age_s":0.5,"round_trip_age_s":0.25})",
          "\n{\"type\":\"summary\",\"time_s\":2.0,\"state\":3,"}) {
        at = text.find(part, at);
        ASSERT_NE(at, std::string::npos) << part << "\nin " << text;
    }
}

TEST(CheckCommand, ListsEverySettingWithItsOrigin) {
    std::ostringstream out, errors;
    EXPECT_EQ(check_config(TAVISTRO_EXAMPLES "/loopback.ini", out, errors), 0) << errors.str();
    for (const char* line :
         {"\n[asio]\n  driver_name                                              file     ",
          "  announce_period_ms                   1000                default  1..3999\n",
          "  max_queue_blocks                     10                  derived\n"})
        EXPECT_NE(out.str().find(line), std::string::npos) << line << "in\n" << out.str();
}

TEST(CheckCommand, TellsWhatTheLoaderKeepsToItself) {
    const std::string path = testing::TempDir() + "tavistro_host_test.ini";
    std::ofstream(path) << "\xEF\xBB\xBFserver_port=1\n"
                           "[NETWORK]\nServer_IP = auto ; \"quoted\"\nx=\nserverr_portt=1\n"
                           "[Socket]\n# x=1\n[network\nunjudged=1\n[a]\nclient=1\n[netwrok]\n"
                           "[asio]\ndriver_name='a'\nDriver_Name=My \"best\"\n";
    std::ostringstream errors;
    EXPECT_EQ(check_config(path, errors, errors), 1);
    EXPECT_EQ(
        errors.str(),
        "Invalid section header at line 8\n"
        "warning: the file begins with a UTF-8 byte-order mark, which spoils its first line: "
        "save it without\n"
        "warning: line 1: 'server_port' has no effect above every section: it belongs in "
        "[network]\n"
        "warning: line 4: unknown key 'x' in [network]: [network] expects server_ip, "
        "server_port, client_id, discovery_timeout_ms, discovery_broadcast\n"
        "warning: line 5: unknown key 'serverr_portt' in [network]: did you mean 'server_port'?\n"
        "warning: line 10: unknown section [a]: its keys are ignored\n"
        "warning: line 12: unknown section [netwrok]: did you mean [network]?\n"
        "warning: line 14: the quotes in 'driver_name' are taken for a part of the value: "
        "leave them out\n"
        "warning: line 15: 'driver_name' was given in line 14 already: the last one counts\n");
    std::ofstream(path) << "\xFE\xFF\1[";
    EXPECT_EQ(check_config(path, errors, errors), 1);
    EXPECT_NE(errors.str().find("warning: the file is saved as UTF-16"), std::string::npos);
    std::filesystem::remove(path);
}

constexpr std::uint32_t localhost = 0x7F000001;
constexpr std::uint32_t own_address = 0xC0A80005;
constexpr std::uint32_t lan_address = 0xC0A80009;
constexpr std::uint32_t far_address = 0x08080808;

TEST(ServerSurvey, ListsEveryServerOnceNearestFirstWhateverItSpeaks) {
    ServerSurvey survey(7, 99, [](std::uint32_t a) { return a == localhost || a == own_address; });
    const auto reply = [](std::uint16_t port, std::uint32_t version = 5, std::uint64_t nonce = 99) {
        return TavistroProtocol::encode_discover_reply({7, nonce, port, version});
    };
    auto older = reply(1);
    older[4] = 4;  // the version in its header
    std::uint64_t round_trip_ns = 0;
    for (const auto& [datagram, from] : {std::pair{reply(50), far_address},
                                         {reply(50), own_address},
                                         {reply(50), localhost},
                                         {reply(51), localhost},
                                         {reply(50, 6), lan_address},
                                         {older, lan_address},
                                         {reply(53, 5, 98), lan_address},
                                         {{1, 2, 3}, lan_address}})
        survey.offer(datagram, {from, 60}, round_trip_ns += 1000);
    std::ostringstream listed;
    for (const AnsweringServer& server : survey.servers())
        listed << platform::format_ipv4(server.endpoint.address) << ':' << server.endpoint.port
               << " v" << server.protocol_version << (server.compatible ? " yes\n" : " no\n");
    EXPECT_EQ(listed.str(),
              "127.0.0.1:50 v5 yes\n127.0.0.1:51 v5 yes\n192.168.0.9:50 v6 no\n"
              "192.168.0.9:60 v4 no\n8.8.8.8:50 v5 yes\n");
    EXPECT_TRUE(json_line(survey.servers().back()).ends_with(R"("compatible":true,"rtt_us":1})"));
}

TEST(ServersCommand, ListsWhoAnswersOnThisHostAndSaysWhoWasAskedWhenNobodyDoes) {
    std::optional<test::ScriptedServer> server(std::in_place);
    const std::string port = std::to_string(server->port());
    const ServersOptions options{.timeout_ms = 500, .port = server->port()};
    std::ostringstream out, errors;
    EXPECT_EQ(list_servers(options, false, out, errors), 0) << errors.str();
    std::string line = "127.0.0.1:" + port;
    line.append(23 - line.size(), ' ').append("this host        protocol 5  compatible    ");
    EXPECT_TRUE(out.str().starts_with(line)) << out.str();
    server.reset();

    EXPECT_EQ(list_servers({1, localhost, options.port}, false, out, errors), 1);
    EXPECT_EQ(list_servers({1, {}, options.port}, false, out, errors), 1);
    const std::string told = "no server answered within 1 ms; asked: 127.0.0.1:" + port;
    EXPECT_TRUE(errors.str().starts_with(told + "\n" + told + " and 255.255.255.255:" + port))
        << errors.str();
}

}  // namespace
}  // namespace tavistro::host
