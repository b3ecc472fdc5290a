#include "scenarios/rig.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <random>

namespace tavistro::test {
namespace {

// Test programs that run in parallel use different ids, since the name of the statistics block
// contains the id.
std::uint32_t next_client_id() {
    static std::atomic<std::uint32_t> id{1 + std::random_device{}() % 1'000'000'000};
    return id++;
}

server::ServerOptions on_free_port(server::ServerOptions options) {
    options.port = 0;
    return options;
}

std::uint16_t port_of_started(server::ReferenceServer& server) {
    EXPECT_EQ(server.start(), "");
    return server.port();
}

}  // namespace

std::string channel_list(std::size_t first, std::size_t count) {
    std::string list;
    for (std::size_t i = 0; i < count; ++i)
        list += std::to_string(first + i) + ",";
    return list;
}

ConfigFile::ConfigFile(std::uint16_t port, const std::string& more)
    : client_id_(next_client_id()),
      path_((std::filesystem::temp_directory_path() /
             ("tavistro-scenario-" + std::to_string(client_id_) + ".ini"))
                .string()) {
    std::ofstream(path_) << "[network]\nserver_ip = 127.0.0.1\nserver_port = " << port
                         << "\nclient_id = " << client_id_
                         << "\n[asio]\ndriver_name =\n[test]\nloopback_device = 1\n"
                         << more;
}

ConfigFile::~ConfigFile() {
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
}

std::uint64_t input_blocks(const server::ReferenceServer& server) {
    return server.snapshot().input.complete;
}

bool input_flows(const server::ReferenceServer& server, std::uint64_t count) {
    const std::uint64_t before = input_blocks(server);
    return eventually([&] { return input_blocks(server) >= before + count; });
}

Rig::Rig(server::ServerOptions options, const std::string& settings)
    : server(on_free_port(std::move(options))), config(port_of_started(server), settings) {
    EXPECT_TRUE(engine.start(config));
}

bool Rig::plays() const {
    return eventually([&] { return engine.runs(); }) && input_flows(server);
}

bool Rig::sounds(std::size_t channel) {
    constexpr std::size_t kept = 8;
    server.enable_history(0);
    server.enable_history(kept);
    return eventually([&] {
        const auto blocks = server.bus_history(channel);
        return blocks.size() == kept &&
               std::ranges::any_of(blocks.back().samples, [](float s) { return s > 0.01F; });
    });
}

}  // namespace tavistro::test
