#include "tools/server/command_line.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <sstream>
#include <string_view>
#include <vector>

#include "platform/udp_socket.h"
#include "tools/http/http_server.h"
#include "tools/nearest_word.h"
#include "tools/number_range.h"
#include "tools/version_flag.h"

namespace tavistro::server {

namespace {

/// Parses an argument part by part from its front.
class Parts {
  public:
    explicit Parts(std::string_view text) : rest_(text) {}

    template <typename Number>
    bool number(Number& value) {
        const char* const end = rest_.data() + rest_.size();
        const auto [stopped_at, error] = std::from_chars(rest_.data(), end, value);
        rest_ = {stopped_at, end};
        return error == std::errc{};
    }
    bool channel(std::uint32_t& channel) { return number(channel) && channel < bus_channel_count; }
    bool sign(char sign) {
        const bool is_next = rest_.starts_with(sign);
        if (is_next) rest_.remove_prefix(1);
        return is_next;
    }
    /// Up to the last '@', since the path itself may contain '@'.
    bool path(std::string& path) {
        path = rest_.substr(0, rest_.rfind('@'));
        rest_.remove_prefix(path.size());
        return !path.empty() && sign('@');
    }
    /// An optional "@LEVEL", above 0 and up to 1.
    bool level_or_end(float& level) {
        return is_end() || (sign('@') && number(level) && level > 0 && level <= 1 && is_end());
    }
    bool is_end() const { return rest_.empty(); }

  private:
    std::string_view rest_;
};

bool read(Parts text, ToneOptions& tone) {
    return text.channel(tone.channel) && text.sign('=') && text.number(tone.frequency_hz) &&
           tone.frequency_hz > 0 && tone.frequency_hz <= 200000 && text.level_or_end(tone.level);
}

bool read(Parts text, MelodyOptions& melody) {
    return text.channel(melody.channel) && text.level_or_end(melody.level);
}

bool read(Parts text, PlayOptions& play) {
    return text.path(play.path) && text.channel(play.channel) && text.is_end();
}

bool read(Parts text, RecordOptions& record) {
    if (!text.path(record.path)) return false;
    do {
        if (!text.channel(record.channels.emplace_back())) return false;
    } while (text.sign(','));
    return text.is_end();
}

bool read(Parts text, MeasureOptions& measure) {
    return text.channel(measure.sent) && text.sign(':') && text.channel(measure.returned) &&
           text.is_end();
}

/// Adds an option that may be repeated; each use appends a value.
template <typename Value>
void add_list(CLI::App& app, const char* name, const char* form, std::vector<Value>& values,
              const char* help) {
    const auto take = [&values, name, form](const CLI::results_t& texts) {
        for (const std::string& text : texts) {
            if (read(Parts(text), values.emplace_back())) continue;
            throw CLI::ValidationError(
                name, fmt::format("{} is not a valid {}; --help shows the ranges", text, form));
        }
        return true;
    };
    app.add_option(name, CLI::callback_t(take), help)
        ->type_name(form)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

void need_each_other(CLI::Option* one, CLI::Option* other) {
    one->needs(other);
    other->needs(one);
}

void add_arguments(CLI::App& app, CommandLine& command) {
    ServerOptions& options = command.options;
    FaultOptions& faults = options.faults;
    const auto bind = [&options](const std::string& text) {
        const auto address = platform::parse_ipv4(text);
        if (!address) throw CLI::ValidationError("--bind", text + " is not an IPv4 address");
        options.bind_address = *address;
    };
    const auto begin_group = [&app](const char* name) { app.option_defaults()->group(name); };

    app.option_defaults()->always_capture_default();
    begin_group("Stream");
    app.add_option("--port", options.port,
                   "UDP port; 0 picks a free one, which the first line of output shows")
        ->check(number_range(0, 65535));
    app.add_option_function<std::string>(
           "--bind", bind, "IPv4 address to listen on; by default all network interfaces")
        ->type_name("ADDR");
    app.add_option("--rate", options.format.sample_rate, "sample rate in Hz")
        ->check(number_range(8000, 384000));
    app.add_option("--frames", options.format.frames, "frames per block")
        ->check(number_range(1, 8192));
    app.add_option("--payload", options.udp_payload_bytes,
                   "largest UDP payload of audio datagrams in bytes")
        ->check(number_range(TavistroProtocol::min_udp_payload_bytes,
                             TavistroProtocol::max_udp_payload_bytes));
    app.add_option("--seconds", command.seconds, "run time in s; 0: until interrupted");
    app.add_option("--metrics", command.metrics_address,
                   "serve /metrics for Prometheus; ADDR is localhost by default")
        ->type_name("[ADDR:]PORT")
        ->check([](const std::string& text) {
            return http::is_http_address(text) ? "" : "'" + text + "' is not [ADDR:]PORT";
        });
    app.add_option("--status", command.status_s, "time between two status lines in s; 0: none")
        ->check(number_range(0, 1000000));
    app.add_flag("--json", command.json, "print one JSON object per line instead of text");

    begin_group("Sources, recordings and measurements, each may be repeated");
    add_list(app, "--tone", "CH=HZ[@LEVEL]", options.tones, "play a sine on bus channel CH");
    add_list(app, "--melody", "CH[@LEVEL]", options.melodies,
             "play a melody that never repeats on bus channel CH");
    add_list(app, "--play", "FILE@CH", options.plays,
             "loop an audio file on the bus channels from CH on");
    add_list(app, "--record", "FILE@CH[,CH...]", options.records,
             "record bus channels into a WAV file");
    add_list(app, "--measure", "SENT:RETURNED", options.measures,
             "measure round trip and correlation of audio that clients receive\n"
             "on bus channel SENT and return on bus channel RETURNED");

    begin_group("Simulated network faults, both directions");
    const CLI::Validator percent = number_range(0, 100);
    app.add_option("--drop", faults.drop_percent, "packet loss in percent of the datagrams")
        ->check(percent);
    app.add_option("--duplicate", faults.duplicate_percent,
                   "duplicates in percent of the datagrams")
        ->check(percent);
    app.add_option("--reorder", faults.reorder_percent,
                   "reordering in percent of the datagrams, which arrive two blocks later")
        ->check(percent);
    app.add_option("--jitter-ms", faults.jitter_ms,
                   "jitter: largest added delay in ms; datagrams keep their order")
        ->check(number_range(0, 10000));
    CLI::Option* const burst_every = app.add_option("--burst-every-ms", faults.burst_every_ms,
                                                    "interval between loss bursts in ms");
    need_each_other(burst_every, app.add_option("--burst-length", faults.burst_length_blocks,
                                                "length of a loss burst in blocks"));
    app.add_option("--seed", options.seed, "seed of the random choices")
        ->check(CLI::NonNegativeNumber);

    begin_group("Simulated server faults");
    app.add_option("--drift-ppm", faults.drift_ppm,
                   "drift of the server's clock against the system clock in ppm")
        ->check(number_range(-50000, 50000));
    CLI::Option* const pause_every =
        app.add_option("--pause-every-ms", faults.pause_every_ms,
                       "interval between pauses of the sync notices in ms");
    need_each_other(pause_every,
                    app.add_option("--pause-for-ms", faults.pause_for_ms,
                                   "length of a pause of the sync notices in ms; audio continues"));
}

}  // namespace

ParsedArguments parse_arguments(int argc, const char* const* argv) {
    CommandLine command;
    CLI::App app(
        "Mixes audio for Tavistro clients over UDP. Each client receives the bus channels of its\n"
        "driver_outputs and sends input on the bus channels of its driver_inputs.",
        "tavistro-server");
    app.footer(
        "CH, SENT and RETURNED are bus channels, 0..31. HZ is above 0 and up to 200000. LEVEL is "
        "the\n"
        "peak level relative to full scale, above 0 and up to 1, 0.25 by default.");
    add_version_flag(app);
    add_arguments(app, command);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& help_or_version) {
        std::ostringstream text;
        app.exit(help_or_version, text);
        return {.command = {}, .message = text.str(), .exit_code = 0};
    } catch (const CLI::ParseError& error) {
        return {.command = {},
                .message = fmt::format("tavistro-server: {}\n{}", fault_text(app, error),
                                       CLI::Formatter().make_usage(&app, app.get_name())),
                .exit_code = 2};
    }
    return {.command = std::move(command), .message = {}, .exit_code = 0};
}

}  // namespace tavistro::server
