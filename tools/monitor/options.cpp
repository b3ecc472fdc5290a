#include "tools/monitor/options.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <sstream>
#include <utility>

#include "tools/http/http_server.h"
#include "tools/nearest_word.h"
#include "tools/number_range.h"
#include "tools/version_flag.h"

namespace tavistro::monitor {

namespace {

/// Seconds of a time as explain and the pages show it: 75, 1:15 or 0:01:15.
const CLI::Validator& recording_time() {
    static const CLI::Validator validator(
        [](std::string& text) -> std::string {
            double seconds = 0;
            std::istringstream parts(text);
            int count = 0;
            for (std::string part; std::getline(parts, part, ':'); ++count) {
                double value = 0;
                if (part.empty() || part.find_first_not_of("0123456789.") != std::string::npos ||
                    !CLI::detail::lexical_cast(part, value))
                    return "'" + text + "' is no time";
                seconds = seconds * 60 + value;
            }
            if (count == 0 || count > 3 || text.back() == ':') return "'" + text + "' is no time";
            text = std::to_string(seconds);
            return "";
        },
        "");
    return validator;
}

}  // namespace

std::optional<Options> parse_options(int argc, const char* const* argv, int& exit_code) {
    constexpr int wrong_arguments = 2;
    constexpr double default_seconds = 30;
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
    bool quiet = false;
    CLI::Option* const as_json =
        app.add_flag("--json", json, "Print one JSON object per engine and reading");
    app.add_flag("--csv", csv, "Print a table for spreadsheets")->excludes(as_json);
    app.add_flag("--quiet", quiet, "Print no readings; for --record and --http")
        ->excludes("--json")
        ->excludes("--csv");
    app.add_option("--interval", options.interval_s, "Seconds between two readings (1)")
        ->check(number_range(0.05, 3600.0));
    app.add_option("--seconds", options.seconds, "End after this many seconds")->check(time);
    app.add_option("--record", options.record_path,
                   "Also write every reading to FILE, which must not exist")
        ->type_name("FILE");
    app.add_option("--http", options.http_address, "Also serve a page with plots")
        ->type_name("[ADDR:]PORT")
        ->check([](const std::string& text) {
            return http::is_http_address(text) ? "" : "'" + text + "' is not [ADDR:]PORT";
        });

    const auto add_part = [&](CLI::App* command) {
        command->add_option("--from", options.from_s, "Leave out what was before this time")
            ->transform(recording_time())
            ->type_name("[[H:]M:]S");
        command->add_option("--until", options.until_s, "Leave out what was after this time")
            ->transform(recording_time())
            ->type_name("[[H:]M:]S");
    };
    const auto add_recording = [&](CLI::App* command) {
        command
            ->add_option("FILE", options.recording_path, "Recording, made with --record or --json")
            ->required()
            ->type_name("");
        add_part(command);
    };

    CLI::App* const report =
        app.add_subcommand("report", "Turn a recording into one HTML page with plots");
    add_recording(report);
    report->add_option("-o,--output", options.output_path, "Page to write (FILE.html)")
        ->type_name("PAGE");

    CLI::App* const explain =
        app.add_subcommand("explain", "Say in words what happened and what caused drop-outs");
    explain->footer(
        "The exit status is 1 when something was wrong or is not clear yet, or no engine ran.");
    explain->add_option("CLIENT_ID", options.client_ids, "Engines to watch; all if none is named")
        ->check(client_id);
    CLI::Option* const explain_time =
        explain->add_option("--seconds", options.seconds, "How long to watch (30)")->check(time);
    explain->add_option("--recording", options.recording_path, "Explain a recording instead")
        ->type_name("FILE")
        ->excludes(explain_time);
    add_part(explain);

    CLI::App* const convert = app.add_subcommand(
        "convert", "Print a recording as one JSON object per engine and reading");
    add_recording(convert);
    convert->add_flag("--csv", csv, "Print a table for spreadsheets instead");

    CLI::App* const bundle =
        app.add_subcommand("bundle", "Pack what a support person needs into one file to send");
    bundle->footer(
        "The file has the recordings, what explain says of them, the configurations, the versions\n"
        "of the programs, and facts about this computer. IP and MAC addresses, server_ip and the\n"
        "computer's name are left out.");
    bundle
        ->add_option("--recording", options.bundled_recordings,
                     "Recording to pack; without one, what is seen now")
        ->type_name("FILE");
    bundle->add_option("--seconds", options.seconds, "How long to watch without a recording (30)")
        ->check(time);
    bundle->add_option("--config", options.bundled_configurations, "Configuration to pack")
        ->type_name("FILE");
    bundle->add_flag("--addresses", options.with_addresses, "Leave no address out");
    bundle
        ->add_option("-o,--output", options.output_path,
                     "File to write (tavistro-bundle-TIME.tar.gz); it must not exist")
        ->type_name("FILE");

    // Here, since subcommands inherit what was set before them.
    app.footer(
        "CLIENT_ID is the client_id of the engine's configuration. Without it every engine\n"
        "of this computer is watched, also those that start later; on Windows those with\n"
        "client_id 1 to 64.\n\n"
        "--http serves / (the page), /metrics (Prometheus) and JSON below /api/v1/, and\n"
        "prints the URL of the page first. ADDR is an IP address or localhost, which is\n"
        "the default; 0.0.0.0 lets other computers connect.");
    app.require_subcommand(0, 1);

    try {
        app.parse(argc, argv);
        if (!app.get_subcommands().empty() &&
            (options.once || json || quiet || (csv && !convert->parsed()) ||
             !options.record_path.empty() || !options.http_address.empty()))
            throw CLI::ValidationError(
                "--once, --json, --csv, --quiet, --record and --http are for watching alone");
    } catch (const CLI::Success& help) {
        exit_code = app.exit(help);
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        const auto parsed = app.get_subcommands();
        const CLI::App& asked = parsed.empty() ? app : *parsed.front();
        std::cerr << app.get_name() << ": " << fault_text(app, error, ids->results()) << '\n'
                  << CLI::Formatter().make_usage(
                         &asked, (&asked == &app ? "" : app.get_name() + " ") + asked.get_name());
        exit_code = wrong_arguments;
        return std::nullopt;
    }
    for (const auto& [command, task] : {std::pair{report, Options::Task::report},
                                        {explain, Options::Task::explain},
                                        {convert, Options::Task::convert},
                                        {bundle, Options::Task::bundle}}) {
        if (command->parsed()) options.task = task;
    }
    if (options.task == Options::Task::explain || options.task == Options::Task::bundle)
        options.seconds = options.seconds.value_or(default_seconds);
    if (json) options.format = Options::Format::json;
    if (csv) options.format = Options::Format::csv;
    if (quiet) options.format = Options::Format::none;
    return options;
}

}  // namespace tavistro::monitor
