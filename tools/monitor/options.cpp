#include "tools/monitor/options.h"

#include <CLI/CLI.hpp>
#include <iostream>

#include "tools/monitor/http_server.h"
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

    CLI::App app("Watches running engines through their statistics blocks", "tavistro-monitor");
    app.footer("CLIENT_ID is that of the engine's configuration, 1 by default.");
    add_version_flag(app);
    app.add_option("CLIENT_ID", options.client_ids, "Engines to watch")->check(client_id);
    app.add_flag("--once", options.once, "One reading; exit status 1 when no engine runs");
    bool json = false;
    bool csv = false;
    CLI::Option* const as_json = app.add_flag("--json", json, "One JSON object per reading");
    app.add_flag("--csv", csv, "A table for spreadsheets")->excludes(as_json);
    app.add_option("--interval", options.interval_s, "Seconds from one reading to the next")
        ->check(number_range(0.05, 3600.0));
    app.add_option("--seconds", options.seconds, "End after so many seconds")->check(time);
    app.add_option("--record", options.record_path,
                   "Also write every reading to FILE, which must not exist yet");
    app.add_option("--http", options.http_address,
                   "Also serve a page, /metrics for Prometheus, /samples.json and /diagnosis.json "
                   "at [ADDR:]PORT; ADDR is a number or localhost, which is the default")
        ->check([](const std::string& text) {
            return is_http_address(text) ? "" : "'" + text + "' is not [ADDR:]PORT";
        });

    CLI::App* const report =
        app.add_subcommand("report", "Turn a recording into one HTML page with plots");
    report->add_option("FILE", options.recording_path, "Recording")->required();
    report->add_option("-o,--output", options.output_path, "Page to write");

    CLI::App* const explain = app.add_subcommand(
        "explain",
        "Say in words what happened and which side drop-outs come from; exit status 1 "
        "when something was wrong or is not clear yet");
    explain->add_option("CLIENT_ID", options.client_ids, "Engines to watch")->check(client_id);
    explain->add_option("--seconds", options.seconds, "How long to watch (30)")->check(time);
    explain->add_option("--recording", options.recording_path, "Explain a recording instead");

    try {
        app.parse(argc, argv);
        if (report->parsed() && explain->parsed())
            throw CLI::ValidationError("report and explain do not go together");
        if (!app.get_subcommands().empty() &&
            (options.once || json || csv || !options.record_path.empty() ||
             !options.http_address.empty()))
            throw CLI::ValidationError(
                "--once, --json, --csv, --record and --http are for watching alone");
        if (options.client_ids.empty() && options.recording_path.empty()) options.client_ids = {1};
    } catch (const CLI::Success& help) {
        exit_code = app.exit(help);
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        const CLI::App& asked = report->parsed() ? *report : explain->parsed() ? *explain : app;
        std::cerr << app.get_name() << ": " << error.what() << '\n'
                  << CLI::Formatter().make_usage(&asked, asked.get_display_name());
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
