// Host and server as people run them, in one process.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <future>
#include <sstream>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/udp_socket.h"
#include "support/eventually.h"
#include "support/scripted_server.h"
#include "tools/host/commands.h"
#include "tools/readings/stats_reader.h"
#include "tools/server/server_program.h"

namespace tavistro::host {
namespace {

using Program = int(int, const char* const*, std::ostream&, std::ostream&);

/// Runs a program with these words as arguments; '' is an empty one.
int run(Program& program, const std::string& arguments, std::ostream& out, std::ostream& err) {
    std::istringstream in("program " + arguments);
    std::vector<std::string> words;
    for (std::string word; in >> word;)
        words.push_back(word == "''" ? "" : word);
    std::vector<const char*> argv(words.size());
    std::ranges::transform(words, argv.begin(), [](auto& word) { return word.c_str(); });
    return program(static_cast<int>(argv.size()), argv.data(), out, err);
}

class Programs : public testing::Test {
  protected:
    Programs() {
        platform::UdpSocket socket;
        EXPECT_TRUE(socket.open({.bind = {platform::ipv4_loopback, 0}}));
        port = std::to_string(socket.local_endpoint().port);
        configure(port, true);
    }

    void configure(const std::string& server_port, bool loopback) const {
        std::ofstream(config) << "[network]\nserver_ip=127.0.0.1\nserver_port=" << server_port
                              << "\nclient_id=77" << port
                              << "\n[asio]\ndriver_name=None\n[test]\nloopback_device=" << loopback;
    }

    std::uint32_t client_id() const { return static_cast<std::uint32_t>(std::stoul("77" + port)); }

    std::string port;
    const std::string config = testing::TempDir() + "tavistro_programs.ini";
    std::ostringstream told, errors;
};

/// The numbers after each of these in a text; 0 where there is none.
std::vector<double> numbers(const std::string& text, const std::string& name) {
    std::vector<double> found;
    for (std::size_t at = 0; (at = text.find(name, at)) != std::string::npos;)
        found.push_back(std::atof(text.c_str() + (at += name.size())));
    return found;
}

TEST_F(Programs, PlayTogetherAndTellOfIt) {
    std::ostringstream served, server_errors, warned;
    auto server = std::async(std::launch::async, [&] {
        return run(server::run_server_program,
                   "--bind 127.0.0.1 --port " + port +
                       " --tone 0=440 --tone 1=220 --measure 0:2 --duplicate 9 --json --seconds 4",
                   served, server_errors);
    });
    auto twin = std::async(std::launch::async, [&] {
        const bool seen = test::eventually([&] { return readings::engine_plays_as(client_id()); });
        return seen ? run(run_host_program, "run " + config, warned, warned) : 0;
    });
    EXPECT_EQ(run(run_host_program, "run --seconds 3.4 --json " + config, told, errors), 0);
    EXPECT_EQ(errors.str().find("warning"), std::string::npos) << "no twin of its own";
    EXPECT_EQ(server.get(), 0) << server_errors.str();
    EXPECT_EQ(twin.get(), 1);
    EXPECT_EQ(warned.str(), "warning: an engine with client_id 77" + port +
                                " runs on this computer already; give each a client_id of its own\n"
                                "tavistro-host: the engine could not be created\n");
    EXPECT_FALSE(readings::engine_plays_as(client_id()));

    const std::string text = told.str();
    EXPECT_GE(numbers(text, "\"rendered_frames\":").size(), 2U) << text;
    EXPECT_LE(numbers(text, "\"input_meters\":[{\"channel\":").size(), 5U) << text;
    EXPECT_LT(numbers(text, "\"cpu_seconds_per_second\":").at(0), 2);
    EXPECT_LT(text.find(R"("state_text":"Stopped")"), text.find(R"({"type":"summary")")) << text;

    const auto lines = [&](const std::string& part) { return numbers(served.str(), part).size(); };
    EXPECT_EQ(lines("\"type\":\"joined\""), 1U) << served.str();
    EXPECT_EQ(lines("\"type\":\"left\""), 1U) << served.str();
    EXPECT_NEAR(static_cast<double>(lines("\"type\":\"status\"")), 3, 1) << served.str();
    for (const char* part :
         {"\"driver_inputs\":[2,3]", "\"returned\":2,\"sent\":0", "\"blocks_held_back\":0"})
        EXPECT_GT(lines(part), 0U) << part << served.str();
}

/// Sends the process a signal with each of the first lines.
struct SignalAtLine : std::stringbuf {
    explicit SignalAtLine(int signals) : left(signals) {}
    int sync() override { return left-- > 0 ? std::raise(SIGTERM) : 0; }
    int left;
};

TEST_F(Programs, EndOnASignal) {
    SignalAtLine lines(1);
    std::ostream out(&lines);
    EXPECT_EQ(run(run_host_program, "run --seconds 9 " + config, out, errors), 0);
    const std::string text = lines.str();
    EXPECT_NE(text.find("  ran         0."), std::string::npos) << text;
    EXPECT_NE(text.find("  none were published\n  last state  Stopped\n"), std::string::npos);
}

TEST_F(Programs, EndAtOnceOnASecondSignal) {
    SignalAtLine lines(2);
    std::ostream out(&lines);
    EXPECT_DEATH(run(run_host_program, "run " + config, out, errors), "");
    EXPECT_DEATH(run(server::run_server_program, "--port " + port + " --seconds 1", out, errors),
                 "");
}

TEST_F(Programs, SayOnceWhatAStartWaitsFor) {
    EXPECT_EQ(run(run_host_program, "run --json --seconds 1.8 " + config, told, errors), 0);
    EXPECT_EQ(
        errors.str().find("note: No server has answered yet. Asked: 127.0.0.1, UDP port " + port),
        0U)
        << errors.str();
    EXPECT_EQ(std::ranges::count(errors.str(), '\n'), 1) << "of two attempts";
    errors.str("");

    test::ScriptedServer server;
    configure(std::to_string(server.port()), false);
    auto host = std::async(std::launch::async, [&] {
        return run(run_host_program, "run --json --seconds 1.8 " + config, told, errors);
    });
    EXPECT_TRUE(test::eventually([&] { return server.announces > 0; }));
    server.send_sync(48000, 128);
    EXPECT_EQ(host.get(), 0);
    EXPECT_EQ(
        errors.str().find("note: The audio device did not start. driver_name = None; drivers in "),
        0U)
        << errors.str();
    EXPECT_EQ(std::ranges::count(errors.str(), '\n'), 1) << "of two attempts";
    errors.str("");

    server.version = 6;
    EXPECT_EQ(run(run_host_program, "run " + config, told, errors), 1);
    EXPECT_TRUE(
        errors.str().ends_with(" speaks protocol version 6; this engine speaks version 5.\n"))
        << errors.str();
}

TEST_F(Programs, FailWithAReason) {
    Program& server = server::run_server_program;
    const std::tuple<Program*, std::string, int, std::string> cases[] = {
        {run_host_program, "run none.ini", 2,
         "host: none.ini: Cannot open config file: none.ini\n"},
        {run_host_program, "run --json none.ini", 2,
         "host: none.ini: Cannot open config file: none.ini\n"},
        {run_host_program, "run ''", 2, "host: CONFIG: the path is empty\n"},
        {run_host_program, "", 2, "host: A subcommand is required\nRuns the Tavistro"},
        {run_host_program, "chek x.ini", 2, "host: unknown 'chek'; did you mean 'check'?\n"},
        {run_host_program, "run --secnds=3", 2, "host: unknown '--secnds=3'; did you mean '--s"},
        {run_host_program, "servers --timeout 0", 2, "host: --timeout: "},
        {run_host_program, "servers --address 1.2.3", 2,
         "host: --address: 1.2.3 is not an IPv4 address\n"},
        {server, "--tone 1=440@2 --seconds 1", 2, "server: --tone: "},
        {server, "--mellody 0 --seconds 1", 2, "server: unknown '--mellody'; did you mean '--m"},
        {server, "--drop 101 --seconds 1", 2, "server: --drop: "},
        {server, "--burst-every-ms 3 --seconds 1", 2, "server: --burst-every-ms requires"},
        {server, "--burst-length 3 --seconds 1", 2, "server: --burst-length requires"}};
    for (const auto& [program, arguments, exit_code, reason] : cases) {
        errors.str("");
        told.str("");
        EXPECT_EQ(run(*program, arguments, told, errors), exit_code) << reason;
        EXPECT_TRUE(errors.str().starts_with("tavistro-" + reason)) << errors.str();
        const bool has_usage = errors.str().find("\nUsage: tavistro-") != std::string::npos;
        EXPECT_EQ(has_usage, !reason.ends_with("none.ini\n")) << errors.str();
        const bool has_object = told.str().find("\n{\"type\":\"summary\"") != std::string::npos;
        EXPECT_EQ(has_object, arguments == "run --json none.ini") << told.str();
    }
}

}  // namespace
}  // namespace tavistro::host
