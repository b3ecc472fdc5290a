#include <CLI/CLI.hpp>
#include <optional>
#include <ostream>
#include <string>

#include "config/engine_config.h"
#include "platform/driver_registry.h"
#include "platform/udp_socket.h"
#include "tools/host/commands.h"
#include "tools/host/engine_library.h"
#include "tools/nearest_word.h"
#include "tools/number_range.h"
#include "tools/readings/stats_reader.h"
#include "tools/version_flag.h"

namespace tavistro::host {

namespace {

/// Two engines with one client_id are one client to the server and share one statistics block: both
/// break up, and neither can tell. Says nothing of a configuration that cannot be loaded: the run
/// will.
void warn_of_twin(const std::string& config_path, std::ostream& errors) {
    EngineConfig config;
    std::string ignored;
    if (!load_engine_config(config_path, config, ignored)) return;
    const std::uint32_t client_id = config.client.client_id;
    if (!readings::engine_plays_as(client_id)) return;
    errors << "warning: an engine with client_id " << client_id
           << " runs on this computer already; give each a client_id of its own" << std::endl;
}

}  // namespace

int run_host_program(int argc, const char* const* argv, std::ostream& out, std::ostream& errors) {
    constexpr int wrong_arguments = 2;
    std::string config_path;
    std::optional<double> seconds;
    ServersOptions servers_options;
    bool json = false;

    CLI::App app("Console host for the Tavistro engine", "tavistro-host");
    app.require_subcommand(0, 1);  // that there is one is looked at last, after unknown words
    add_version_flag(app);

    CLI::App* const run = app.add_subcommand("run", "Run the engine and show what it does");
    run->add_option("--seconds", seconds, "Stop after so many seconds")
        ->check(number_range(0.001, 1e9));
    CLI::App* const check = app.add_subcommand("check", "Check a configuration file");
    for (CLI::App* const command : {run, check})
        command->add_option("CONFIG", config_path, "Configuration file")->required();

    CLI::App* const devices =
        app.add_subcommand("devices", "List the ASIO drivers and what they offer");
    CLI::App* const servers = app.add_subcommand("servers", "List the servers that answer");
    servers->add_option("--timeout", servers_options.timeout_ms, "Milliseconds to wait for answers")
        ->check(number_range(1, 600000));
    servers->add_option_function<std::string>(
        "--address",
        [&address = servers_options.address](const std::string& text) {
            address = platform::parse_ipv4(text);
            if (!address) throw CLI::ValidationError("--address", text + " is no IPv4 address");
        },
        "Ask this address alone");
    servers->add_option("--port", servers_options.port, "UDP port to ask")
        ->check(number_range(1, 65535));
    for (CLI::App* const command : {run, devices, servers})
        command->add_flag("--json", json, "One JSON object per line");

    try {
        app.parse(argc, argv);
        if (app.get_subcommands().empty()) throw CLI::RequiredError("A subcommand");
    } catch (const CLI::Success& asked_to_tell) {
        return app.exit(asked_to_tell, out, errors);
    } catch (const CLI::ParseError& error) {
        errors << "tavistro-host: " << fault_text(app, error) << '\n' << app.help();
        return wrong_arguments;
    }
    if (check->parsed()) return check_config(config_path, out, errors);
    if (servers->parsed()) return list_servers(servers_options, json, out, errors);
    if (devices->parsed()) {
        platform::look_for_drivers_beside(engine_library_path());
        return list_devices(json, out, errors);
    }
    warn_of_twin(config_path, errors);
    return run_engine(config_path, seconds, json, out, errors);
}

}  // namespace tavistro::host
