// tavistro-host: a console host for the engine.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "platform/driver_registry.h"
#include "platform/udp_socket.h"
#include "tools/host/check_command.h"
#include "tools/host/devices_command.h"
#include "tools/host/engine_library.h"
#include "tools/host/run_command.h"
#include "tools/host/servers_command.h"
#include "tools/host/twin_check.h"
#include "tools/number_range.h"
#include "tools/version_flag.h"

namespace tavistro::host {

namespace {

constexpr int failed = 1;
constexpr int wrong_arguments = 2;

constexpr const char* usage =
    "usage: tavistro-host run CONFIG [--seconds N] [--json]\n"
    "       tavistro-host check CONFIG\n"
    "       tavistro-host devices [--json]\n"
    "       tavistro-host servers [--timeout MS] [--address A] [--port N] [--json]\n";

/// An option that takes a dotted IPv4 address.
void add_address(CLI::App& command, std::optional<std::uint32_t>& address) {
    command.add_option_function<std::string>(
        "--address",
        [&address](const std::string& text) {
            address = platform::parse_ipv4(text);
            if (!address) throw CLI::ValidationError("--address", text + " is no IPv4 address");
        },
        "Ask this address alone");
}

/// CLI11 asks for a subcommand before it looks at what it did not understand.
std::string fault_text(const CLI::App& app, const CLI::ParseError& error) {
    const std::vector<std::string> unknown = app.remaining();
    if (unknown.empty() || !app.get_subcommands().empty()) return error.what();
    const char* const kind = unknown.front().starts_with('-') ? "option" : "subcommand";
    return std::string("unknown ").append(kind).append(" '").append(unknown.front()).append("'");
}

int run_tool(int argc, char** argv) {
    CLI::App app("Console host for the Tavistro engine", "tavistro-host");
    app.require_subcommand(1);
    add_version_flag(app);

    RunOptions options;
    CLI::App* const run = app.add_subcommand("run", "Run the engine and show what it does");
    run->add_option("CONFIG", options.config_path, "Configuration file")->required();
    run->add_option("--seconds", options.seconds, "Stop after so many seconds")
        ->check(number_range(0.001, 1e9));
    run->add_flag("--json", options.json, "One JSON object per line");

    std::string checked_path;
    CLI::App* const check = app.add_subcommand("check", "Check a configuration file");
    check->add_option("CONFIG", checked_path, "Configuration file")->required();

    bool devices_json = false;
    CLI::App* const devices =
        app.add_subcommand("devices", "List the ASIO drivers and what they offer");
    devices->add_flag("--json", devices_json, "One JSON object per line");

    ServersOptions asked;
    CLI::App* const servers = app.add_subcommand("servers", "List the servers that answer");
    servers->add_option("--timeout", asked.timeout_ms, "Milliseconds to wait for answers")
        ->check(CLI::Range(1, 600000));
    add_address(*servers, asked.address);
    servers->add_option("--port", asked.port, "UDP port to ask")->check(CLI::Range(1, 65535));
    servers->add_flag("--json", asked.json, "One JSON object per line");

    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& asked_to_tell) {
        return app.exit(asked_to_tell);
    } catch (const CLI::ParseError& error) {
        std::cerr << "tavistro-host: " << fault_text(app, error) << "\n" << usage;
        return wrong_arguments;
    }
    if (check->parsed()) return check_config(checked_path, std::cout, std::cerr);
    if (servers->parsed()) return list_servers(asked, std::cout, std::cerr);
    if (devices->parsed()) {
        platform::look_for_drivers_beside(engine_library_path());
        return list_devices(devices_json, std::cout, std::cerr);
    }
    warn_of_twin(options.config_path, std::cerr);
    return run_engine(options);
}

}  // namespace

}  // namespace tavistro::host

int main(int argc, char** argv) {
    try {
        return tavistro::host::run_tool(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tavistro-host: %s\n", error.what());
        return tavistro::host::failed;
    }
}
