// Host and server as people run them, in one process: the host plays what the server sends, the
// server ends first, and both tell what happened.
#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/udp_socket.h"
#include "support/eventually.h"
#include "tools/host/run_command.h"
#include "tools/host/twin_check.h"
#include "tools/server/server_program.h"

namespace tavistro::host {
namespace {

TEST(Programs, PlayAndTellOfIt) {
    const std::string config = testing::TempDir() + "tavistro_programs.ini";
    for (const bool json : {false, true}) {
        platform::UdpSocket socket;
        ASSERT_TRUE(socket.open({.bind = {platform::ipv4_loopback, 0}}));
        const std::string port = std::to_string(socket.local_endpoint().port);
        socket.release();
        std::ofstream(config) << "[network]\nserver_ip=127.0.0.1\nserver_port=" << port
                              << "\nclient_id=77" << port
                              << "\n[asio]\ndriver_name=\n[test]\nloopback_device=1\n";
        std::vector<const char*> arguments{
            "tavistro-server", "--bind", "127.0.0.1", "--port", port.c_str(), "--seconds", "3",
            "--drop",          "1",      "--tone",    "0=440",  "--measure",  "0:2"};
        if (json) arguments.push_back("--json");
        std::ostringstream served, errors, told;
        int served_code = -1;
        std::thread server([&] {
            served_code = server::run_server_program(static_cast<int>(arguments.size()),
                                                     arguments.data(), served, errors);
        });
        const auto id = static_cast<std::uint32_t>(std::stoul("77" + port));
        auto is_seen = std::async(std::launch::async, [id] {
            return test::eventually([id] { return engine_plays_as(id); });
        });
        auto* const console = std::cout.rdbuf(told.rdbuf());
        const int told_code = run_engine({config, 4.0, json});
        std::cout.rdbuf(console);
        server.join();
        EXPECT_EQ(served_code, 0) << errors.str();
        EXPECT_EQ(told_code, 0);
        EXPECT_TRUE(is_seen.get());
        EXPECT_FALSE(engine_plays_as(id));
        const std::string client = (json ? "\"client_id\":77" : "client 77") + port;
        EXPECT_NE(served.str().find(client), std::string::npos) << served.str();
        const char* const last = json ? "\"type\":\"summary\"" : "last state  Stopped";
        EXPECT_NE(told.str().find(last), std::string::npos) << told.str();
    }
}

}  // namespace
}  // namespace tavistro::host
