#include "tools/server/command_line.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <sstream>
#include <string_view>
#include <vector>

#include "platform/udp_socket.h"
#include "tools/number_range.h"
#include "tools/version_flag.h"

namespace tavistro::server {

namespace {

/// Takes the parts of an argument off its front, one after the other.
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
    /// Up to the last '@': a path may have some of its own.
    bool path(std::string& path) {
        path = rest_.substr(0, rest_.rfind('@'));
        rest_.remove_prefix(path.size());
        return !path.empty() && sign('@');
    }
    /// An "@LEVEL", above 0 up to 1, or nothing.
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

/// An option that may be repeated; each value is appended.
template <typename Value>
void add_list(CLI::App& app, const char* name, const char* form, std::vector<Value>& values,
              const char* help) {
    const auto take = [&values, name, form](const CLI::results_t& texts) {
        for (const std::string& text : texts) {
            if (read(Parts(text), values.emplace_back())) continue;
            throw CLI::ValidationError(name, fmt::format("{} is not of the form {}", text, form));
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
        if (!address) throw CLI::ValidationError("--bind", text + " is no IPv4 address");
        options.bind_address = *address;
    };
    const auto begin_group = [&app](const char* name) { app.option_defaults()->group(name); };

    app.option_defaults()->always_capture_default();
    begin_group("Stream");
    app.add_option("--port", options.port, "UDP port; 0: any free one")
        ->check(number_range(0, 65535));
    app.add_option_function<std::string>("--bind", bind,
                                         "IPv4 address to serve at; every interface without it")
        ->type_name("ADDR");
    app.add_option("--rate", options.format.sample_rate, "sample rate in Hz")
        ->check(number_range(8000, 384000));
    app.add_option("--frames", options.format.frames, "frames per block")
        ->check(number_range(1, 8192));
    app.add_option("--payload", options.udp_payload_bytes, "largest audio datagram in bytes")
        ->check(number_range(TavistroProtocol::min_udp_payload_bytes,
                             TavistroProtocol::max_udp_payload_bytes));
    app.add_option("--seconds", command.seconds, "end after this time; 0: never");
    app.add_flag("--json", command.json, "one JSON object per line, no text");

    begin_group("Sources and sinks, each as often as wanted");
    add_list(app, "--tone", "CH=HZ[@LEVEL]", options.tones, "sine on a bus channel");
    add_list(app, "--melody", "CH[@LEVEL]", options.melodies, "endless tune on a bus channel");
    add_list(app, "--play", "FILE@CH", options.plays, "looped audio file from a bus channel on");
    add_list(app, "--record", "FILE@CH[,CH...]", options.records, "bus channels into a WAV file");
    add_list(app, "--measure", "SENT:RETURNED", options.measures,
             "compare what comes back on a bus channel with what another sends");

    begin_group("Network faults, both directions");
    const CLI::Validator percent = number_range(0, 100);
    app.add_option("--drop", faults.drop_percent, "percent of datagrams lost")->check(percent);
    app.add_option("--duplicate", faults.duplicate_percent, "percent sent twice")->check(percent);
    app.add_option("--reorder", faults.reorder_percent, "percent held back by two blocks")
        ->check(percent);
    app.add_option("--jitter-ms", faults.jitter_ms, "largest delay, order kept")
        ->check(number_range(0, 10000));
    CLI::Option* const burst_every =
        app.add_option("--burst-every-ms", faults.burst_every_ms, "bursts of loss: how often");
    need_each_other(burst_every, app.add_option("--burst-length", faults.burst_length_blocks,
                                                "bursts of loss: blocks lost in each"));
    app.add_option("--seed", options.seed, "of every random choice")->check(CLI::NonNegativeNumber);

    begin_group("Server faults");
    app.add_option("--drift-ppm", faults.drift_ppm,
                   "speed of the server's clock against the system's")
        ->check(number_range(-50000, 50000));
    CLI::Option* const pause_every =
        app.add_option("--pause-every-ms", faults.pause_every_ms, "pauses of Sync: how often");
    need_each_other(pause_every, app.add_option("--pause-for-ms", faults.pause_for_ms,
                                                "pauses of Sync: how long"));
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
