#include "tools/monitor/options.h"

#include <CLI/CLI.hpp>
#include <iostream>

#include "tools/monitor/http_server.h"
#include "tools/nearest_word.h"
#include "tools/number_range.h"
#include "tools/version_flag.h"

namespace tavistro::monitor {

std::optional<Options> parse_options(int argc, const char* const* argv, int& exit_code) {
    constexpr int wrong_arguments = 2;
    constexpr double explain_seconds = 30;
    constexpr double longest_s = 1e9;
    Options options;
    const auto client_id = number_range(1, 4294967295);
    const auto time = number_range(0.001, longest_s);

    CLI::App app("Watches running engines from outside, through their statistics blocks",
                 "tavistro-monitor");
    add_version_flag(app);
    CLI::Option* const ids =
        app.add_option("CLIENT_ID", options.client_ids, "Engines to watch; all if none is named")
            ->check(client_id);
    app.add_flag("--once", options.once, "Take one reading; exit status 1 when no engine runs");
    bool json = false;
    bool csv = false;
    CLI::Option* const as_json =
        app.add_flag("--json", json, "Print one JSON object per engine and reading");
    app.add_flag("--csv", csv, "Print a table for spreadsheets")->excludes(as_json);
    app.add_option("--interval", options.interval_s, "Seconds between two readings (1)")
        ->check(number_range(0.05, 3600.0));
    app.add_option("--seconds", options.seconds, "End after this many seconds")->check(time);
    app.add_option("--record", options.record_path,
                   "Also write every reading to FILE, which must not exist")
        ->type_name("FILE");
    app.add_option("--http", options.http_address, "Also serve a page with plots")
        ->type_name("[ADDR:]PORT")
        ->check([](const std::string& text) {
            return is_http_address(text) ? "" : "'" + text + "' is not [ADDR:]PORT";
        });

    CLI::App* const report =
        app.add_subcommand("report", "Turn a recording into one HTML page with plots");
    report->add_option("FILE", options.recording_path, "Recording, made with --record")
        ->required()
        ->type_name("");
    report->add_option("-o,--output", options.output_path, "Page to write (FILE.html)")
        ->type_name("PAGE");

    CLI::App* const explain =
        app.add_subcommand("explain", "Say in words what happened and what caused drop-outs");
    explain->footer(
        "The exit status is 1 when something was wrong or is not clear yet, or no engine ran.");
    explain->add_option("CLIENT_ID", options.client_ids, "Engines to watch; all if none is named")
        ->check(client_id);
    explain->add_option("--seconds", options.seconds, "How long to watch (30)")->check(time);
    explain->add_option("--recording", options.recording_path, "Explain a recording instead")
        ->type_name("FILE");

    // Here, since subcommands inherit what was set before them.
    app.footer(
        "CLIENT_ID is the client_id of the engine's configuration. Without it every engine\n"
        "of this computer is watched, also those that start later; on Windows those with\n"
        "client_id 1 to 64.\n\n"
        "--http serves / (the page), /metrics (Prometheus), /samples.json and\n"
        "/diagnosis.json, and prints the URL of the page first. ADDR is an IP address or\n"
        "localhost, which is the default; 0.0.0.0 lets other computers connect.");

    try {
        app.parse(argc, argv);
        if (report->parsed() && explain->parsed())
            throw CLI::ValidationError("report and explain do not go together");
        if (!app.get_subcommands().empty() &&
            (options.once || json || csv || !options.record_path.empty() ||
             !options.http_address.empty()))
            throw CLI::ValidationError(
                "--once, --json, --csv, --record and --http are for watching alone");
    } catch (const CLI::Success& help) {
        exit_code = app.exit(help);
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        const CLI::App& asked = report->parsed() ? *report : explain->parsed() ? *explain : app;
        std::cerr << app.get_name() << ": " << fault_text(app, error, ids->results()) << '\n'
                  << CLI::Formatter().make_usage(
                         &asked, (&asked == &app ? "" : app.get_name() + " ") + asked.get_name());
        exit_code = wrong_arguments;
        return std::nullopt;
    }
    if (report->parsed()) options.task = Options::Task::report;
    if (explain->parsed()) {
        options.task = Options::Task::explain;
        if (!options.seconds) options.seconds = explain_seconds;
    }
    if (json) options.format = Options::Format::json;
    if (csv) options.format = Options::Format::csv;
    return options;
}

}  // namespace tavistro::monitor
