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

double ms(double microseconds) {
    return microseconds / 1000.0;
}

std::string format_text(std::uint32_t sample_rate, std::uint32_t block_frames) {
    return sample_rate == 0 ? "unknown" : fmt::format("{}/{}", sample_rate, block_frames);
}

std::string peak_text(const tavistro_channel_meter& meter) {
    if (meter.peak_permille == 0) return "silent";
    return fmt::format("{:.1f}", 20 * std::log10(meter.peak_permille / 1000.0));
}

/// Every peak where they are few, else the loudest: a line has to stay readable.
std::string meters_text(Meters meters) {
    constexpr std::size_t few = 2;
    if (meters.empty()) return "none";
    if (meters.size() > few) {
        const auto loudest = std::ranges::max(meters, {}, &tavistro_channel_meter::peak_permille);
        return fmt::format("{} max of {}", peak_text(loudest), meters.size());
    }
    std::string text = peak_text(meters.front());
    for (const auto& meter : meters.subspan(1))
        text += fmt::format(" {}", peak_text(meter));
    return text;
}

std::string status_text(const tavistro_engine_state& state) {
    const bool trouble =
        state.status_level == TAVISTRO_LEVEL_WARNING || state.status_level == TAVISTRO_LEVEL_ERROR;
    const std::string_view text = message_text(state.status_message);
    return trouble ? fmt::format("{}: {}", level_text(state.status_level), text)
                   : std::string(text);
}

/// What a running engine shows is its state; anything else needs the words.
std::string state_and_status_text(const tavistro_engine_state& state) {
    const std::string_view name = state_text(state.state);
    if (state.status_message == TAVISTRO_MESSAGE_RUNNING) return std::string(name);
    return fmt::format("{}, {}", name, status_text(state));
}

std::string stats_text(const tavistro_stats_block& stats) {
    return fmt::format("  buffer {}/{} ({:.2f} ms) read {:+} ppm  rtt {:.2f} ms  drops {}+{}",
                       stats.playback_buffer_frames, stats.target_frames, ms(stats.buffer_us),
                       std::lround(read_speed_ppm(stats)), ms(stats.rtt_last_us),
                       stats.playback_dropped, stats.capture_dropped);
}

class HumanReport : public Report {
  public:
    explicit HumanReport(std::ostream& out) : out_(out) {}

    void state_changed(double time_s, const tavistro_engine_state& state) override {
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

    void status(double time_s, const tavistro_engine_state& state,
                const std::optional<tavistro_stats_block>& stats) override {
        line(time_s, "status",
             fmt::format("{:<8}  {} on {}  in {}  out {} dBFS{}", state_and_status_text(state),
                         format_text(state.stream_sample_rate, state.stream_block_frames),
                         format_text(state.device_sample_rate, state.device_block_frames),
                         meters_text(input_meters(state)), meters_text(output_meters(state)),
                         stats ? stats_text(*stats) : ""));
    }

    void summary(const RunSummary& summary) override {
        out_ << "\nsummary\n";
        row("ran", "{:.1f} s", summary.seconds);
        if (const auto& stats = summary.stats) {
            row("underruns", "{}", stats->underruns);
            row("overruns", "{}", stats->overruns);
            row("drops", "{} playback, {} capture", stats->playback_dropped,
                stats->capture_dropped);
            row("max rtt", "{:.2f} ms", ms(stats->rtt_max_us));
        } else {
            row("statistics", "none were published");
        }
        if (summary.has_played())
            row("cpu", "{:.3f} s per second of audio", summary.cpu_seconds / summary.seconds);
        row("last state", "{}", state_text(summary.last.state));
        row("last error", "{}", error_text(summary.last.error_code));
        out_.flush();
    }

  private:
    void line(double time_s, std::string_view topic, const std::string& text) {
        out_ << fmt::format("{:9.3f} s  {:<8}{}", time_s, topic, text) << std::endl;
    }

    template <typename... Values>
    void row(std::string_view name, fmt::format_string<Values...> format, Values&&... values) {
        out_ << fmt::format("  {:<12}", name)
             << fmt::format(format, std::forward<Values>(values)...) << '\n';
    }

    std::ostream& out_;
};

}  // namespace

std::unique_ptr<Report> make_human_report(std::ostream& out) {
    return std::make_unique<HumanReport>(out);
}

}  // namespace tavistro::host
