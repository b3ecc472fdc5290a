// tavistro-host: a console host for the engine.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

#include "tools/host/check_command.h"
#include "tools/host/run_command.h"

namespace tavistro::host {

namespace {

constexpr int failed = 1;
constexpr int wrong_arguments = 2;

int run_tool(int argc, char** argv) {
    CLI::App app("Console host for the Tavistro engine", "tavistro-host");
    app.require_subcommand(1);

    RunOptions options;
    CLI::App* const run = app.add_subcommand("run", "Run the engine and show what it does");
    run->add_option("CONFIG", options.config_path, "Configuration file")->required();
    run->add_option("--seconds", options.seconds, "Stop after so many seconds")
        ->check(CLI::Range(0.001, 1e9));
    run->add_flag("--json", options.json, "One JSON object per line");

    std::string checked_path;
    CLI::App* const check = app.add_subcommand("check", "Check a configuration file");
    check->add_option("CONFIG", checked_path, "Configuration file")->required();

    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        std::cerr << "tavistro-host: " << error.what() << "\n"
                  << "usage: tavistro-host run CONFIG [--seconds N] [--json] | check CONFIG\n";
        return wrong_arguments;
    }
    return check->parsed() ? check_config(checked_path, std::cout, std::cerr) : run_engine(options);
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
