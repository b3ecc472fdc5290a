#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <ostream>
#include <string>
#include <utility>

#include "tools/host/report.h"
#include "tools/readings/read_speed.h"
#include "tools/readings/texts.h"

namespace tavistro::host {

namespace {

using namespace readings;

constexpr int header_period = 20;       // status lines
constexpr double stale_after_s = 3.5;   // the engine reports and asks for a round trip every second
constexpr double largest_cell = 99999;  // what is more is no sensible number of a run

double ms(double microseconds) {
    return microseconds / 1000.0;
}

std::string ms_text(double value_ms, int digits) {
    return fmt::format("{:.{}f}", std::min(value_ms, largest_cell), value_ms < 100 ? digits : 0);
}

/// At most five characters.
std::string count_text(std::uint32_t count) {
    if (count <= largest_cell) return fmt::to_string(count);
    return count < 10'000'000 ? fmt::format("{}k", count / 1000)
                              : fmt::format("{}M", count / 1'000'000);
}

std::string age_text(double age_s) {
    return age_s < 10'000 ? fmt::format("stale {:.0f} s", age_s)
                          : fmt::format("stale {:.0f} h", std::min(age_s / 3600, largest_cell));
}

std::string peak_text(const tavistro_channel_meter& meter) {
    if (meter.peak_permille == 0) return "-inf";
    return fmt::format("{:.1f}", 20 * std::log10(meter.peak_permille / 1000.0));
}

/// Every peak where they are few, else the loudest.
std::string meters_text(Meters meters) {
    constexpr std::size_t few = 2;
    if (meters.empty()) return "none";
    if (meters.size() > few)
        return "max " +
               peak_text(std::ranges::max(meters, {}, &tavistro_channel_meter::peak_permille));
    std::string text = peak_text(meters.front());
    for (const auto& meter : meters.subspan(1))
        text += ' ' + peak_text(meter);
    return text;
}

bool is_warning_or_error(const tavistro_engine_state& state) {
    return state.status_level == TAVISTRO_LEVEL_WARNING ||
           state.status_level == TAVISTRO_LEVEL_ERROR;
}

std::string status_text(const tavistro_engine_state& state) {
    const std::string_view text = message_text(state.status_message);
    return is_warning_or_error(state) ? fmt::format("{}: {}", level_text(state.status_level), text)
                                      : std::string(text);
}

std::string format_text(const tavistro_engine_state& state) {
    const auto one = [](std::uint32_t sample_rate, std::uint32_t block_frames) {
        return sample_rate == 0 ? "not known yet"
                                : fmt::format("{} Hz, {} frames", sample_rate, block_frames);
    };
    return fmt::format("stream {}; device {}",
                       one(state.stream_sample_rate, state.stream_block_frames),
                       one(state.device_sample_rate, state.device_block_frames));
}

/// The cells of a status line; a line with its time has at most 100 characters.
std::string cells(std::string_view state, std::string_view buffer, std::string_view round_trip,
                  std::string_view drops, std::string_view out, std::string_view in,
                  std::string_view speed) {
    return fmt::format("{:<16}  {:>13}  {:>7}  {:>11}  {:>11}  {:>11}  {:>6}", state, buffer,
                       round_trip, drops, out, in, speed);
}

/// Numbers that the engine has not refreshed lately give way to how long ago it did.
std::string numbers_text(const tavistro_engine_state& state, const std::optional<RunStats>& stats) {
    std::string name(state_text(state.state));
    if (state.status_level != TAVISTRO_LEVEL_HEALTHY)
        name.append(", ").append(level_text(state.status_level));
    if (!stats) return cells(name, "-", "-", "-", "-", "-", "-");
    const tavistro_stats_block& block = stats->block;
    const std::string drops =
        count_text(block.playback_dropped) + '/' + count_text(block.capture_dropped);
    std::string round_trip = "stale";
    if (stats->round_trip_age_s <= stale_after_s) round_trip = ms_text(ms(block.rtt_last_us), 2);
    if (block.rtt_samples == 0) round_trip = "-";
    if (stats->playback_age_s > stale_after_s)
        return cells(name, age_text(stats->playback_age_s), round_trip, drops, "-", "-", "-");
    const double target_ms =
        state.stream_sample_rate == 0 ? 0 : 1e3 * block.target_frames / state.stream_sample_rate;
    return cells(name, ms_text(ms(block.buffer_us), 1) + '/' + ms_text(target_ms, 1), round_trip,
                 drops, meters_text(output_meters(state)), meters_text(input_meters(state)),
                 fmt::format("{:+}", std::lround(read_speed_ppm(block))));
}

class HumanReport : public Report {
  public:
    explicit HumanReport(std::ostream& out) : out_(out) {}

    void state_changed(double time_s, const tavistro_engine_state& state) override {
        told_message_ = state.status_message;
        line(time_s, "state", fmt::format("{:<12}{}", state_text(state.state), status_text(state)));
    }

    void event(double time_s, const NewEvent& news) override {
        const tavistro_engine_event& event = news.event;
        if (news.missed_before > 0)
            line(time_s, "event", fmt::format("{} events were missed", news.missed_before));
        const bool failed = event.error_code != TAVISTRO_ERROR_NONE;
        line(time_s, "event",
             fmt::format("#{} {} ({}, {}, attempt {} of {}{}{})", event.sequence,
                         message_text(event.message), category_text(event.subject),
                         event_kind_text(event.kind), event.attempt, event.max_attempts,
                         failed ? ", error: " : "", failed ? error_text(event.error_code) : ""));
    }

    /// Numbers while the engine runs; what it is doing while it does not.
    void status(double time_s, const tavistro_engine_state& state,
                const std::optional<RunStats>& stats) override {
        if (state.state != TAVISTRO_STATE_RUNNING)
            return row(time_s, fmt::format("{:<16}  {:.69}", state_text(state.state),
                                           message_text(state.status_message)));
        if (std::exchange(told_message_, state.status_message) != state.status_message)
            line(time_s, "status", status_text(state));
        if (auto format = format_text(state); format != told_format_)
            line(time_s, "format", told_format_ = std::move(format));
        if (std::exchange(until_header_, (until_header_ + header_period - 1) % header_period) == 0)
            write_header();
        row(time_s, numbers_text(state, stats));
    }

    void summary(const RunSummary& summary) override {
        out_ << "\nsummary\n";
        entry("ran", "{:.1f} s", summary.seconds);
        if (const auto& stats = summary.stats) {
            entry("underruns", "{}", stats->underruns);
            entry("overruns", "{}", stats->overruns);
            entry("drops", "{} playback, {} capture", stats->playback_dropped,
                  stats->capture_dropped);
            entry("max rtt", "{:.2f} ms", ms(stats->rtt_max_us));
        } else {
            entry("statistics", "none were published");
        }
        if (summary.has_played())
            entry("cpu", "{:.3f} s per second of audio", summary.cpu_seconds / summary.seconds);
        entry("last state", "{}", state_text(summary.last.state));
        entry("last error", "{}", error_text(summary.last.error_code));
        out_.flush();
    }

  private:
    /// Milliseconds of a day, seconds of a longer run: the column does not grow.
    void row(double time_s, const std::string& text) {
        out_ << fmt::format("{:9.{}f} s  {}", time_s, time_s < 1e5 ? 3 : 0, text) << std::endl;
    }

    void line(double time_s, std::string_view topic, const std::string& text) {
        row(time_s, fmt::format("{:<8}{}", topic, text));
    }

    void write_header() {
        out_ << fmt::format(
            "{:13}{}\n{:>11}  {}\n", "",
            cells("", "buffer/target", "round", "drops", "out peaks", "in peaks", "speed"), "time",
            cells("state", "ms", "trip ms", "out/in", "dBFS", "dBFS", "ppm"));
    }

    template <typename... Values>
    void entry(std::string_view name, fmt::format_string<Values...> format, Values&&... values) {
        out_ << fmt::format("  {:<12}", name)
             << fmt::format(format, std::forward<Values>(values)...) << '\n';
    }

    std::ostream& out_;
    std::uint32_t told_message_ = TAVISTRO_MESSAGE_NONE;
    std::string told_format_;
    int until_header_ = 0;  ///< status lines
};

}  // namespace

std::unique_ptr<Report> make_human_report(std::ostream& out) {
    return std::make_unique<HumanReport>(out);
}

}  // namespace tavistro::host
