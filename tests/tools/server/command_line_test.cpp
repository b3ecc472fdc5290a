#include "tools/server/command_line.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <utility>

#include "tools/server/reference_server.h"
#include "tools/server/server_program.h"

namespace tavistro::server {
namespace {

/// A command line without its program's name, cut at the blanks.
struct Arguments {
    explicit Arguments(const std::string& line) : in(line) {
        words.assign(std::istream_iterator<std::string>(in), {});
        for (const std::string& word : words)
            all.push_back(word.c_str());
    }
    int count() const { return static_cast<int>(all.size()); }

    std::istringstream in;
    std::vector<std::string> words;
    std::vector<const char*> all{"tavistro-server"};
};

struct ProgramRun {
    explicit ProgramRun(const std::string& line) {
        const Arguments arguments(line);
        exit_code = run_server_program(arguments.count(), arguments.all.data(), out, err);
    }
    int exit_code;
    std::ostringstream out, err;
};

TEST(CommandLine, ReadsEveryKindOfArgument) {
    const Arguments line(
        "--port 0 --bind 127.0.0.1 --rate 44100 --frames 64 --tone 3=440.5@0.5 --tone 4=100 "
        "--melody 2@0.1 --play a@b.wav@30 --record x.wav@1,2,31 --measure 0:1 --measure 2:3 "
        "--drop 1.5 --burst-every-ms 100 --burst-length 2 --drift-ppm -30 --clock-offset-ms -5 "
        "--reply-capability 0x10 --change-after-ms 500 --change-to 44100/32 --json --seconds 3");
    const ParsedArguments arguments = parse_arguments(line.count(), line.all.data());
    ASSERT_TRUE(arguments.command) << arguments.message;
    const ServerOptions& options = arguments.command->options;
    EXPECT_EQ(options.bind_address, 0x7F000001U);
    EXPECT_EQ(options.format, (StreamFormat{44100, 64}));
    EXPECT_EQ(options.tones.at(1).channel, 4U);
    EXPECT_EQ(options.tones[0].frequency_hz, 440.5);
    EXPECT_EQ(options.tones[0].level, 0.5F);
    EXPECT_EQ(options.plays.at(0).path, "a@b.wav");
    EXPECT_EQ(options.plays.at(0).channel, 30U);
    EXPECT_EQ(options.records.at(0).channels, (std::vector<std::uint32_t>{1, 2, 31}));
    EXPECT_EQ(options.measures.at(1).returned, 3U);
    EXPECT_EQ(options.faults.drop_percent, 1.5);
    EXPECT_EQ(options.faults.clock_offset_ms, -5);
    EXPECT_EQ(options.faults.reply_capability, 0x10U);
    EXPECT_EQ(options.change.value().format, (StreamFormat{44100, 32}));
    EXPECT_TRUE(arguments.command->json);
    EXPECT_EQ(arguments.command->seconds, 3U);
}

TEST(CommandLine, WrongArgumentsEndWithUsageAndTwo) {
    for (const char* wrong :
         {"--bogus", "--port 70000", "--bind localhost", "--tone 32=440", "--tone 1=440@2",
          "--tone 1", "--melody -1", "--play a.wav", "--record a.wav@1,", "--measure 1",
          "--frames 0", "--payload 51", "--drop nan", "--burst-length 3", "--pause-for-ms 3",
          "--clock-offset-ms 9000000000000000000", "--change-to 48000/64",
          "--change-after-ms 5 --change-to 48000/0",
          "--play a.wav@0 --change-after-ms 5 --change-to 44100/128"}) {
        const ProgramRun run(wrong);
        EXPECT_EQ(run.exit_code, 2) << wrong;
        EXPECT_NE(run.err.str().find("usage:"), std::string::npos) << run.err.str();
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
