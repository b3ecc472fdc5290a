// Host and server as people run them, in one process.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <future>
#include <sstream>
#include <utility>
#include <vector>

#include "platform/udp_socket.h"
#include "support/eventually.h"
#include "tavistro/engine.h"
#include "tavistro/stats_block.h"
#include "tools/host/host_program.h"
#include "tools/host/twin_check.h"
#include "tools/server/server_program.h"

namespace tavistro::host {
namespace {

/// Runs a program with these words as arguments; '' is an empty one.
int run(int (*program)(int, const char* const*, std::ostream&, std::ostream&),
        const std::string& arguments, std::ostream& out, std::ostream& err) {
    std::vector<std::string> words{"program"};
    std::istringstream in(arguments);
    for (std::string word; in >> word;)
        words.push_back(word == "''" ? "" : word);
    std::vector<const char*> argv;
    for (const std::string& word : words)
        argv.push_back(word.c_str());
    return program(static_cast<int>(argv.size()), argv.data(), out, err);
}

int host(const std::string& arguments, std::ostream& out, std::ostream& err) {
    return run(run_host_program, arguments, out, err);
}

class Programs : public testing::Test {
  protected:
    Programs() {
        platform::UdpSocket socket;
        EXPECT_TRUE(socket.open({.bind = {platform::ipv4_loopback, 0}}));
        port = std::to_string(socket.local_endpoint().port);
        std::ofstream(config) << "[network]\nserver_ip=127.0.0.1\nserver_port=" << port
                              << "\nclient_id=77" << port
                              << "\n[asio]\ndriver_name=\n[test]\nloopback_device=1\n";
    }

    std::uint32_t client_id() const { return static_cast<std::uint32_t>(std::stoul("77" + port)); }

    std::string port;
    const std::string config = testing::TempDir() + "tavistro_programs.ini";
    std::ostringstream told, errors;
};

/// The numbers after each of these in a text.
std::vector<double> numbers(const std::string& text, const std::string& name) {
    std::vector<double> found;
    for (std::size_t at = 0; (at = text.find(name, at)) != std::string::npos;)
        found.push_back(std::stod(text.substr(at += name.size())));
    return found;
}

TEST_F(Programs, PlayThroughAChangeOfFormatAndTellOfIt) {
    std::ostringstream served, server_errors, warned;
    auto server = std::async(std::launch::async, [&] {
        return run(server::run_server_program,
                   "--bind 127.0.0.1 --port " + port +
                       " --seconds 4 --drop 1 --tone 0=440 --measure 0:2 --json"
                       " --change-after-ms 2400 --change-to 48000/64",
                   served, server_errors);
    });
    auto twin = std::async(std::launch::async, [&] {
        const bool seen = test::eventually([&] { return engine_plays_as(client_id()); });
        return seen ? host("run " + config, warned, warned) : 0;
    });
    EXPECT_EQ(host("run --seconds 4.5 --json " + config, told, errors), 0) << errors.str();
    EXPECT_EQ(server.get(), 0) << server_errors.str();
    EXPECT_NE(served.str().find("\"client_id\":77" + port), std::string::npos) << served.str();
    EXPECT_EQ(twin.get(), 1);
    EXPECT_EQ(warned.str(), "warning: an engine with client_id 77" + port +
                                " runs on this computer already; give each a client_id of its own\n"
                                "tavistro-host: the engine could not be created\n");
    EXPECT_EQ(errors.str(), "") << "no twin of its own";
    EXPECT_FALSE(engine_plays_as(client_id()));

    const std::string text = told.str();
    EXPECT_NE(text.find("\"stream_block_frames\":64,"), std::string::npos) << text;
    const std::vector<double> played = numbers(text, "\"rendered_frames\":");
    EXPECT_TRUE(std::ranges::is_sorted(played)) << "begins anew with the format\n" << text;
    EXPECT_GE(played.size(), 3U);
    EXPECT_LE(numbers(text, "\"input_meters\":[{\"channel\":").size(), 5U) << text;
    EXPECT_LT(numbers(text, "\"cpu_seconds_per_second\":").at(0), 2);
    EXPECT_LT(text.find(R"("state_text":"Stopped")"), text.find(R"({"type":"summary")")) << text;
}

/// Sends the process a signal with the first line.
struct SignalAtFirstLine : std::stringbuf {
    int sync() override { return std::exchange(done, true) ? 0 : std::raise(SIGTERM); }
    bool done = false;
};

TEST_F(Programs, EndOnASignalAndShowNoStatisticsThatAnotherRunLeft) {
    tavistro_stats_block left{};
    std::memcpy(left.magic, TAVISTRO_STATS_MAGIC, sizeof left.magic);
    left.layout_version = TAVISTRO_STATS_LAYOUT_VERSION;
    left.state = TAVISTRO_STATE_RUNNING;
    const std::string name = "/dev/shm/TavistroEngineStats_" + std::to_string(client_id()) + "_v6";
    std::ofstream(name).write(reinterpret_cast<const char*>(&left), sizeof left);
    SignalAtFirstLine lines;
    std::ostream out(&lines);
    EXPECT_EQ(host("run --seconds 9 " + config, out, errors), 0);
    EXPECT_EQ(errors.str(), "") << "nobody holds the block";
    const std::string text = lines.str();
    EXPECT_NE(text.find("  ran         0."), std::string::npos) << text;
    EXPECT_NE(text.find("  statistics  none were published\n  last state  Stopped\n"),
              std::string::npos)
        << text;
    std::remove(name.c_str());
}

TEST_F(Programs, FailWithAReason) {
    EXPECT_EQ(host("run none.ini", told, errors), 1);
    EXPECT_EQ(errors.str(),
              "tavistro-host: the run failed: The configuration could not be loaded. "
              "For the reason run: tavistro-host check none.ini\n");
    EXPECT_NE(told.str().find("last error  configuration invalid\n"), std::string::npos);
    told.str("");
    errors.str("");
    EXPECT_EQ(host("run ''", told, errors), 1);
    EXPECT_EQ(errors.str(),
              "tavistro-host: the run failed: No configuration path was given. Name a "
              "configuration file.\n");
    EXPECT_EQ(told.str().find("summary"), std::string::npos) << "there was no run";
}

TEST_F(Programs, RefuseWrongArguments) {
    const std::pair<std::string, std::string> cases[] = {
        {"", "A subcommand is required\nConsole host for"},
        {"frobnicate", "The following argument was not expected: frobnicate\n"},
        {"run", "CONFIG is required\nRun the engine"},
        {"run x --seconds 0", "--seconds: "},
        {"run x --timeout 5", "The following arguments were not expected: "},
        {"check", "CONFIG is required\nCheck"},
        {"servers --timeout 0", "--timeout: "},
        {"servers --port 65536", "--port: "},
        {"servers --address 1.2.3", "--address: 1.2.3 is no IPv4 address\n"}};
    for (const auto& [arguments, reason] : cases) {
        errors.str("");
        EXPECT_EQ(host(arguments, told, errors), 2) << reason;
        EXPECT_TRUE(errors.str().starts_with("tavistro-host: " + reason)) << errors.str();
    }
    EXPECT_EQ(told.str(), "");
    EXPECT_EQ(host("--version", told, errors), 0);
    EXPECT_EQ(told.str(), "tavistro-host " TAVISTRO_VERSION "\n");
}

}  // namespace
}  // namespace tavistro::host
