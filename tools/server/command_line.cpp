#include "tools/server/command_line.h"

#include <CLI/CLI.hpp>
#include <functional>
#include <sstream>
#include <string_view>
#include <vector>

#include "platform/udp_socket.h"
#include "tools/number_range.h"
#include "tools/server/argument_values.h"
#include "tools/version_flag.h"

namespace tavistro::server {

namespace {

/// Some thirty years; clocks count nanoseconds in 64 bits.
constexpr std::int64_t most_offset_ms = 1'000'000'000'000;

constexpr const char* usage =
    "usage: tavistro-server [--port N] [--melody CH] [--measure SENT:RETURNED] ... "
    "(--help lists every option)\n";

/// A repeatable option whose every value is read by `parse` and appended to `list`.
template <typename Value>
void add_list(CLI::App& app, const std::string& name, std::vector<Value>& list,
              std::optional<Value> (*parse)(std::string_view), const std::string& form,
              const std::string& help) {
    const auto append = [&list, parse, form, name](const std::vector<std::string>& texts) {
        for (const std::string& text : texts) {
            const std::optional<Value> value = parse(text);
            if (!value) {
                throw CLI::ValidationError(
                    name, std::string(text).append(" is not of the form ").append(form));
            }
            list.push_back(*value);
        }
    };
    app.add_option_function<std::vector<std::string>>(name, append, help)
        ->type_name(form)
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

/// An option whose value is read by `parse` and handed to `store`.
template <typename Value>
void add_parsed(CLI::App& app, const std::string& name,
                std::optional<Value> (*parse)(std::string_view),
                std::function<void(const Value&)> store, const std::string& form,
                const std::string& help) {
    const auto read = [parse, store = std::move(store), form, name](const std::string& text) {
        const std::optional<Value> value = parse(text);
        if (!value) throw CLI::ValidationError(name, text + " is not of the form " + form);
        store(*value);
    };
    app.add_option_function<std::string>(name, read, help)->type_name(form);
}

void add_stream(CLI::App& app, CommandLine& command) {
    ServerOptions& options = command.options;
    app.add_option("--port", options.port, "UDP port; 0: any free one")->capture_default_str();
    add_parsed<std::uint32_t>(
        app, "--bind", platform::parse_ipv4,
        [&options](std::uint32_t address) { options.bind_address = address; }, "ADDR",
        "IPv4 address to serve at; every interface without it");
    app.add_option("--rate", options.format.sample_rate, "sample rate in Hz")
        ->check(CLI::Range(8000, 384000))
        ->capture_default_str();
    app.add_option("--frames", options.format.frames, "frames per block")
        ->check(CLI::Range(1, 8192))
        ->capture_default_str();
    app.add_option("--payload", options.udp_payload_bytes, "largest audio datagram in bytes")
        ->check(CLI::Range(TavistroProtocol::min_udp_payload_bytes,
                           TavistroProtocol::max_udp_payload_bytes))
        ->capture_default_str();
    app.add_option("--first-sequence", options.first_sequence,
                   "number of the first block; from the time of day without it");
    app.add_option("--seconds", command.seconds, "end after this time; 0: never")
        ->capture_default_str();
    app.add_flag("--json", command.json, "one JSON object per line instead of text");
}

void add_audio(CLI::App& app, ServerOptions& options) {
    add_list(app, "--tone", options.tones, parse_tone, "CH=HZ[@LEVEL]", "sine on a bus channel");
    add_list(app, "--melody", options.melodies, parse_melody, "CH[@LEVEL]",
             "endless tune on a bus channel");
    add_list(app, "--play", options.plays, parse_play, "FILE@CH",
             "looped audio file from a bus channel on");
    add_list(app, "--record", options.records, parse_record, "FILE@CH[,CH...]",
             "bus channels into a WAV file");
    add_list(app, "--measure", options.measures, parse_measure, "SENT:RETURNED",
             "compare what comes back on a bus channel with what another sends");
}

void add_faults(CLI::App& app, ServerOptions& options) {
    FaultOptions& faults = options.faults;
    const CLI::Validator percent = number_range(0.0, 100.0);
    const auto network = [&app](const char* name, auto& value, const char* help) {
        return app.add_option(name, value, help)->group("Network faults, both directions");
    };
    network("--drop", faults.drop_percent, "percent of datagrams lost")->check(percent);
    network("--duplicate", faults.duplicate_percent, "percent sent twice")->check(percent);
    network("--reorder", faults.reorder_percent, "percent held back by two blocks")->check(percent);
    network("--jitter-ms", faults.jitter_ms, "largest delay, order kept")
        ->check(CLI::Range(0, 10000));
    network("--burst-every-ms", faults.burst_every_ms, "bursts of loss: how often");
    network("--burst-length", faults.burst_length_blocks, "bursts of loss: blocks lost in each");
    network("--seed", options.seed, "of every random choice")->capture_default_str();

    const auto server = [&app](const char* name, auto& value, const char* help) {
        return app.add_option(name, value, help)->group("Server faults");
    };
    server("--drift-ppm", faults.drift_ppm, "speed of the server's clock against the system's")
        ->check(number_range(-50000.0, 50000.0));
    server("--clock-offset-ms", faults.clock_offset_ms, "server clock minus system clock")
        ->check(CLI::Range(-most_offset_ms, most_offset_ms));
    server("--pause-every-ms", faults.pause_every_ms, "pauses of Sync: how often");
    server("--pause-for-ms", faults.pause_for_ms, "pauses of Sync: how long");
    server("--reply-version", faults.reply_version, "protocol version in discovery replies");
    server("--reply-capability", faults.reply_capability, "capability word in discovery replies");
    app.add_flag("--silent", faults.silent, "never send anything")->group("Server faults");
}

void add_change(CLI::App& app, FormatChange& change) {
    CLI::Option* const after =
        app.add_option("--change-after-ms", change.after_ms, "when the format changes");
    add_parsed<StreamFormat>(
        app, "--change-to", parse_format,
        [&change](const StreamFormat& format) { change.format = format; }, "RATE/FRAMES",
        "format that the stream changes to");
    after->needs("--change-to");
    app.get_option("--change-to")->needs(after);
}

/// What no single argument shows.
std::string contradiction(const ServerOptions& options) {
    const FaultOptions& faults = options.faults;
    if ((faults.burst_every_ms == 0) != (faults.burst_length_blocks == 0)) {
        return "--burst-every-ms and --burst-length need each other";
    }
    if ((faults.pause_every_ms == 0) != (faults.pause_for_ms == 0)) {
        return "--pause-every-ms and --pause-for-ms need each other";
    }
    const bool has_files = !options.plays.empty() || !options.records.empty();
    if (has_files && options.change &&
        options.change->format.sample_rate != options.format.sample_rate) {
        return "--change-to cannot change the rate while files are played or recorded";
    }
    return {};
}

ParsedArguments refused(const std::string& reason) {
    return {.command = {}, .message = "tavistro-server: " + reason + "\n" + usage, .exit_code = 2};
}

}  // namespace

ParsedArguments parse_arguments(int argc, const char* const* argv) {
    CommandLine command;
    FormatChange change;
    CLI::App app("Mixes audio for Tavistro clients.", "tavistro-server");
    add_version_flag(app);
    add_stream(app, command);
    add_audio(app, command.options);
    add_faults(app, command.options);
    add_change(app, change);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        return {.command = {}, .message = app.help(), .exit_code = 0};
    } catch (const CLI::CallForVersion& version) {
        return {.command = {}, .message = version.what() + std::string("\n"), .exit_code = 0};
    } catch (const CLI::ParseError& error) {
        return refused(error.what());
    }
    if (app.count("--change-to") != 0) command.options.change = change;
    const std::string reason = contradiction(command.options);
    if (!reason.empty()) return refused(reason);
    return {.command = std::move(command), .message = {}, .exit_code = 0};
}

}  // namespace tavistro::server
