#include "tools/server/command_line.h"

#include <gtest/gtest.h>

#include <list>
#include <sstream>
#include <string_view>
#include <tuple>
#include <utility>

#include "tools/server/reference_server.h"
#include "tools/server/server_program.h"

namespace tavistro::server {
namespace {

std::vector<const char*> words(const std::string& line) {
    static std::list<std::string> kept;
    std::vector<const char*> all{"tavistro-server"};
    std::istringstream in(line);
    for (std::string word; in >> word;)
        all.push_back(kept.emplace_back(word).c_str());
    return all;
}

struct ProgramRun {
    explicit ProgramRun(const std::string& line) {
        const auto all = words(line);
        exit_code = run_server_program(static_cast<int>(all.size()), all.data(), out, err);
    }
    int exit_code;
    std::ostringstream out, err;
};

TEST(CommandLine, EveryArgumentReachesItsField) {
    const auto line = words(
        "--port 0 --bind 127.0.0.1 --rate 44100 --frames 64 --payload 9000 --seed 5 "
        "--tone 3=440.5@0.5 --tone 4=100 --melody 2@1 --play a@b.wav@30 --record x.wav@1,2,31 "
        "--measure 0:1 --measure 2:3 --drop 1.5 --duplicate 2 --reorder 3 --jitter-ms 4 "
        "--burst-every-ms 100 --burst-length 2 --drift-ppm -30 --pause-every-ms 6 "
        "--pause-for-ms 7 --json --seconds 3");
    const ParsedArguments arguments = parse_arguments(static_cast<int>(line.size()), line.data());
    ASSERT_TRUE(arguments.command) << arguments.message;
    const ServerOptions& options = arguments.command->options;
    EXPECT_EQ(std::tie(options.port, options.bind_address, options.udp_payload_bytes, options.seed),
              std::tuple(0, 0x7F000001U, 9000U, 5U));
    EXPECT_EQ(options.format, (StreamFormat{44100, 64}));
    const ToneOptions& tone = options.tones.at(0);
    EXPECT_EQ(std::tie(tone.channel, tone.frequency_hz, tone.level), std::tuple(3U, 440.5, 0.5F));
    EXPECT_EQ(options.tones.at(1).level, ToneOptions{}.level);
    EXPECT_EQ(options.melodies.at(0).level, 1.0F);
    EXPECT_EQ(options.plays.at(0).path, "a@b.wav");
    EXPECT_EQ(options.plays[0].channel, 30U);
    EXPECT_EQ(options.records.at(0).channels, (std::vector<std::uint32_t>{1, 2, 31}));
    const MeasureOptions& measure = options.measures.at(1);
    EXPECT_EQ(std::tie(measure.sent, measure.returned), std::tuple(2U, 3U));
    const FaultOptions& faults = options.faults;
    EXPECT_EQ(std::tie(faults.drop_percent, faults.duplicate_percent, faults.reorder_percent,
                       faults.jitter_ms, faults.burst_every_ms, faults.burst_length_blocks,
                       faults.drift_ppm, faults.pause_every_ms, faults.pause_for_ms),
              std::tuple(1.5, 2.0, 3.0, 4U, 100U, 2U, -30.0, 6U, 7U));
    EXPECT_TRUE(arguments.command->json);
    EXPECT_EQ(arguments.command->seconds, 3U);
}

TEST(CommandLine, WrongArgumentsEndWithTheReasonAndTwo) {
    for (const char* wrong :
         {"--bogus", "--port 70000", "--bind localhost", "--tone 32=440", "--tone 1=440@2",
          "--tone 1=440@0", "--tone 1", "--melody -1", "--play a.wav", "--record a.wav@1,",
          "--measure 1", "--frames 0", "--payload 51", "--drop nan", "--drop 101",
          "--burst-length 3", "--burst-every-ms 3", "--pause-for-ms 3",
          "--rate 8000 --rate 8000"}) {
        const ProgramRun run(wrong);
        EXPECT_EQ(run.exit_code, 2) << wrong;
        const std::string option(
            std::string_view(wrong).substr(0, std::string_view(wrong).find(' ')));
        EXPECT_TRUE(run.err.str().starts_with("tavistro-server: ")) << run.err.str();
        EXPECT_NE(run.err.str().find(option), std::string::npos) << run.err.str();
    }
    EXPECT_EQ(ProgramRun("--help").exit_code, 0);
    const ProgramRun version("--version");
    EXPECT_EQ(version.exit_code, 0);
    EXPECT_TRUE(version.out.str().starts_with("tavistro-server ")) << version.out.str();
}

TEST(ServerProgram, SaysWhyItCannotStart) {
    ReferenceServer other(ServerOptions{.bind_address = platform::ipv4_loopback, .port = 0});
    ASSERT_EQ(other.start(), "");
    const std::string port = std::to_string(other.port());
    for (const auto& [line, reason] :
         {std::pair{"--bind 127.0.0.1 --port " + port, "port " + port},
          {"--port 0 --play no-such-file.wav@0", "no-such-file.wav"},
          {"--port 0 --record /no/such/folder/a.wav@0", "/no/such/folder/a.wav"}}) {
        const ProgramRun run(line);
        EXPECT_EQ(run.exit_code, 1);
        EXPECT_NE(run.err.str().find(reason), std::string::npos) << run.err.str();
    }
}

}  // namespace
}  // namespace tavistro::server
