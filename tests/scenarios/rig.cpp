#include "scenarios/rig.h"

#include <atomic>
#include <fstream>
#include <random>

namespace tavistro::test {
namespace {

// Ids are not shared between test programs that run at the same time: the statistics block has the
// id in its name.
std::uint32_t next_client_id() {
    static std::atomic<std::uint32_t> id{1 + std::random_device{}() % 1'000'000'000};
    return id++;
}

}  // namespace

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

}  // namespace tavistro::test
