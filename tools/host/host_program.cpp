#include <CLI/CLI.hpp>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>

#include "config/engine_config.h"
#include "platform/driver_registry.h"
#include "platform/udp_socket.h"
#include "tools/host/commands.h"
#include "tools/host/engine_library.h"
#include "tools/host/start_advice.h"
#include "tools/nearest_word.h"
#include "tools/number_range.h"
#include "tools/readings/stats_reader.h"
#include "tools/version_flag.h"

namespace tavistro::host {

namespace {

/// Two engines with one client_id are one client to the server and share one statistics block: both
/// break up, and neither can tell.
void warn_of_twin(std::uint32_t client_id, std::ostream& errors) {
    if (!readings::engine_plays_as(client_id)) return;
    errors << "warning: an engine with client_id " << client_id
           << " runs on this computer already; give each a client_id of its own" << std::endl;
}

}  // namespace

int run_host_program(int argc, const char* const* argv, std::ostream& out, std::ostream& errors) {
    std::string config_path;
    RunOptions run_options;
    ServersOptions servers_options;
    bool json = false;

    CLI::App app("Runs the Tavistro engine on a console", "tavistro-host");
    app.footer("For the options of a subcommand: tavistro-host SUBCOMMAND --help");
    app.require_subcommand(0, 1);  // that there is one is looked at last, after unknown words
    add_version_flag(app);

    CLI::App* const run = app.add_subcommand(
        "run", "Run the engine until Ctrl-C; show its state, events and statistics");
    run->add_option("--seconds", run_options.seconds, "Stop after this many seconds")
        ->check(number_range(0.001, 1e9));
    run->add_option("--status", run_options.status_period_s,
                    "Seconds between two status lines (1); 0 shows none")
        ->check(number_range(0, 1e6));
    CLI::App* const check = app.add_subcommand(
        "check", "Say what is wrong with a configuration file, or list its settings");
    for (CLI::App* const command : {run, check})
        command->add_option("CONFIG", config_path, "Configuration file")
            ->required()
            ->check(
                [](const std::string& path) { return path.empty() ? "the path is empty" : ""; });

    CLI::App* const devices =
        app.add_subcommand("devices", "List the ASIO drivers and what each offers");
    CLI::App* const servers = app.add_subcommand(
        "servers", "List the servers that answer on this computer and its network");
    servers
        ->add_option("--timeout", servers_options.timeout_ms,
                     "How long to wait for answers, in milliseconds (1000)")
        ->check(number_range(1, 600000));
    servers->add_option_function<std::string>(
        "--address",
        [&address = servers_options.address](const std::string& text) {
            address = platform::parse_ipv4(text);
            if (!address) throw CLI::ValidationError("--address", text + " is not an IPv4 address");
        },
        "Ask this IPv4 address only");
    servers->add_option("--port", servers_options.port, "UDP port to ask (28010)")
        ->check(number_range(1, 65535));
    for (CLI::App* const command : {run, devices, servers})
        command->add_flag("--json", json, "Print one JSON object per line");

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
    // Once, as tests run this function on several threads of one process.
    static std::once_flag driver_folder_set;
    std::call_once(driver_folder_set,
                   [] { platform::look_for_drivers_beside(engine_library_path()); });
    if (devices->parsed()) return list_devices(json, out, errors);
    EngineConfig config;
    std::string reason;
    if (!load_engine_config(config_path, config, reason))
        return refuse_run(config_path, json, out, errors);
    warn_of_twin(config.client.client_id, errors);
    run_options.json = json;
    return run_engine(config_path, run_options, StartAdvice(config), out, errors);
}

}  // namespace tavistro::host
