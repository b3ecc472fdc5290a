#include "tools/server/command_line.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <functional>
#include <limits>
#include <sstream>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/udp_socket.h"
#include "tools/version_flag.h"

namespace tavistro::server {

namespace {

// Each reads one argument, whole; nothing when it is not of that form, a number is out of range or
// a channel is not on the bus.

template <typename Number>
std::optional<Number> parse_number(std::string_view text) {
    Number number{};
    const char* const end = text.data() + text.size();
    const auto [stopped_at, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc{} || stopped_at != end) return {};
    return number;
}

std::optional<std::uint32_t> parse_channel(std::string_view text) {
    const auto channel = parse_number<std::uint32_t>(text);
    if (!channel || *channel >= bus_channel_count) return {};
    return channel;
}

/// Both sides of the last `separator`; nothing without one.
std::optional<std::pair<std::string_view, std::string_view>> split(std::string_view text,
                                                                   char separator) {
    const std::size_t at = text.rfind(separator);
    if (at == std::string_view::npos) return {};
    return std::pair(text.substr(0, at), text.substr(at + 1));
}

/// Cuts an "@LEVEL" off the end of `text`, whose level is `otherwise` without one.
std::optional<float> take_level(std::string_view& text, float otherwise) {
    const auto parts = split(text, '@');
    if (!parts) return otherwise;
    const auto level = parse_number<float>(parts->second);
    if (!level || !(*level > 0) || *level > 1) return {};
    text = parts->first;
    return level;
}

/// "CH=HZ" or "CH=HZ@LEVEL", level above 0 up to 1.
std::optional<ToneOptions> parse_tone(std::string_view text) {
    ToneOptions tone;
    const auto level = take_level(text, tone.level);
    const auto parts = split(text, '=');
    if (!level || !parts) return {};
    const auto channel = parse_channel(parts->first);
    const auto frequency_hz = parse_number<double>(parts->second);
    if (!channel || !frequency_hz || !(*frequency_hz > 0) || *frequency_hz > 200000) return {};
    return ToneOptions{*channel, *frequency_hz, *level};
}

/// "CH" or "CH@LEVEL".
std::optional<MelodyOptions> parse_melody(std::string_view text) {
    const auto level = take_level(text, MelodyOptions{}.level);
    const auto channel = parse_channel(text);
    if (!level || !channel) return {};
    return MelodyOptions{*channel, *level};
}

/// "FILE@CH".
std::optional<PlayOptions> parse_play(std::string_view text) {
    const auto parts = split(text, '@');
    if (!parts || parts->first.empty()) return {};
    const auto channel = parse_channel(parts->second);
    if (!channel) return {};
    return PlayOptions{std::string(parts->first), *channel};
}

/// "FILE@CH" or "FILE@CH,CH...".
std::optional<RecordOptions> parse_record(std::string_view text) {
    const auto parts = split(text, '@');
    if (!parts || parts->first.empty()) return {};
    RecordOptions record{std::string(parts->first), {}};
    std::string_view list = parts->second;
    while (true) {
        const std::size_t comma = list.find(',');
        const auto channel = parse_channel(list.substr(0, comma));
        if (!channel) return {};
        record.channels.push_back(*channel);
        if (comma == std::string_view::npos) return record;
        list.remove_prefix(comma + 1);
    }
}

/// "SENT:RETURNED", two channels.
std::optional<MeasureOptions> parse_measure(std::string_view text) {
    const auto parts = split(text, ':');
    if (!parts) return {};
    const auto sent = parse_channel(parts->first);
    const auto returned = parse_channel(parts->second);
    if (!sent || !returned) return {};
    return MeasureOptions{*sent, *returned};
}

/// An option with a value. Options have one type, so that CLI11's templates are compiled once.
struct Argument {
    std::string name;
    std::string form;  ///< of its value
    std::string help;
    std::function<bool(std::string_view)> take;  ///< false: the text is not of that form
    bool repeats = false;
    std::string default_text{};
};

/// Stores a number of a range. What is not 0 without it is shown as its default.
template <typename Number>
Argument number(const char* name, const char* help, Number& target, Number lowest, Number highest) {
    return {.name = name,
            .form = fmt::format("{}..{}", lowest, highest),
            .help = help,
            .take =
                [&target, lowest, highest](std::string_view text) {
                    const auto value = parse_number<Number>(text);
                    const bool in_range = value && *value >= lowest && *value <= highest;
                    if (in_range) target = *value;
                    return in_range;
                },
            .default_text = target != 0 ? fmt::to_string(target) : ""};
}

template <typename Number>
Argument number(const char* name, const char* help, Number& target) {
    Argument argument = number<Number>(name, help, target, 0, std::numeric_limits<Number>::max());
    argument.form = "N";
    return argument;
}

/// Appends each value to a list.
template <typename Value>
Argument list(const char* name, const char* form, const char* help, std::vector<Value>& values,
              std::optional<Value> (*parse)(std::string_view)) {
    return {.name = name,
            .form = form,
            .help = help,
            .take =
                [&values, parse](std::string_view text) {
                    const std::optional<Value> value = parse(text);
                    if (value) values.push_back(*value);
                    return value.has_value();
                },
            .repeats = true};
}

void add(CLI::App& app, const char* group, const std::vector<Argument>& arguments) {
    for (const Argument& argument : arguments) {
        const auto read = [argument](const CLI::results_t& texts) {
            for (const std::string& text : texts) {
                if (argument.take(text)) continue;
                throw CLI::ValidationError(
                    argument.name, fmt::format("{} is not of the form {}", text, argument.form));
            }
            return true;
        };
        app.add_option(argument.name, CLI::callback_t(read), argument.help)
            ->type_name(argument.form)
            ->default_str(argument.default_text)
            ->group(group)
            ->multi_option_policy(argument.repeats ? CLI::MultiOptionPolicy::TakeAll
                                                   : CLI::MultiOptionPolicy::Throw);
    }
}

void need_each_other(CLI::App& app, const char* one, const char* other) {
    app.get_option(one)->needs(app.get_option(other));
    app.get_option(other)->needs(app.get_option(one));
}

void add_arguments(CLI::App& app, CommandLine& command) {
    ServerOptions& options = command.options;
    FaultOptions& faults = options.faults;
    const auto bind = [&options](std::string_view text) {
        const auto address = platform::parse_ipv4(text);
        if (address) options.bind_address = *address;
        return address.has_value();
    };
    add(app, "Stream",
        {number("--port", "UDP port; 0: any free one", options.port),
         {"--bind", "ADDR", "IPv4 address to serve at; every interface without it", bind},
         number("--rate", "sample rate in Hz", options.format.sample_rate, 8000U, 384000U),
         number<std::uint16_t>("--frames", "frames per block", options.format.frames, 1, 8192),
         number("--payload", "largest audio datagram in bytes", options.udp_payload_bytes,
                TavistroProtocol::min_udp_payload_bytes, TavistroProtocol::max_udp_payload_bytes),
         number("--seconds", "end after this time; 0: never", command.seconds)});
    app.add_flag_callback(
           "--json", [&command] { command.json = true; }, "one JSON object per line, no text")
        ->group("Stream");
    add(app, "Sources and sinks, each as often as wanted",
        {list("--tone", "CH=HZ[@LEVEL]", "sine on a bus channel", options.tones, parse_tone),
         list("--melody", "CH[@LEVEL]", "endless tune on a bus channel", options.melodies,
              parse_melody),
         list("--play", "FILE@CH", "looped audio file from a bus channel on", options.plays,
              parse_play),
         list("--record", "FILE@CH[,CH...]", "bus channels into a WAV file", options.records,
              parse_record),
         list("--measure", "SENT:RETURNED",
              "compare what comes back on a bus channel with what another sends", options.measures,
              parse_measure)});
    add(app, "Network faults, both directions",
        {number("--drop", "percent of datagrams lost", faults.drop_percent, 0.0, 100.0),
         number("--duplicate", "percent sent twice", faults.duplicate_percent, 0.0, 100.0),
         number("--reorder", "percent held back by two blocks", faults.reorder_percent, 0.0, 100.0),
         number("--jitter-ms", "largest delay, order kept", faults.jitter_ms, 0U, 10000U),
         number("--burst-every-ms", "bursts of loss: how often", faults.burst_every_ms),
         number("--burst-length", "bursts of loss: blocks lost in each",
                faults.burst_length_blocks),
         number("--seed", "of every random choice", options.seed)});
    need_each_other(app, "--burst-every-ms", "--burst-length");
    add(app, "Server faults",
        {number("--drift-ppm", "speed of the server's clock against the system's", faults.drift_ppm,
                -50000.0, 50000.0),
         number("--pause-every-ms", "pauses of Sync: how often", faults.pause_every_ms),
         number("--pause-for-ms", "pauses of Sync: how long", faults.pause_for_ms)});
    need_each_other(app, "--pause-every-ms", "--pause-for-ms");
}

}  // namespace

ParsedArguments parse_arguments(int argc, const char* const* argv) {
    CommandLine command;
    CLI::App app("Mixes audio for Tavistro clients.", "tavistro-server");
    add_version_flag(app);
    add_arguments(app, command);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& asked_to_tell) {
        std::ostringstream told;
        app.exit(asked_to_tell, told);
        return {.command = {}, .message = told.str(), .exit_code = 0};
    } catch (const CLI::ParseError& error) {
        return {.command = {},
                .message = fmt::format("tavistro-server: {}\n{}", error.what(),
                                       CLI::Formatter().make_usage(&app, app.get_name())),
                .exit_code = 2};
    }
    return {.command = std::move(command), .message = {}, .exit_code = 0};
}

}  // namespace tavistro::server
