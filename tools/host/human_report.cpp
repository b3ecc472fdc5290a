#include <algorithm>
#include <cmath>
#include <iomanip>
#include <ostream>
#include <span>
#include <sstream>
#include <string>

#include "tools/host/report.h"
#include "tools/readings/read_speed.h"
#include "tools/readings/texts.h"

namespace tavistro::host {

namespace {

using namespace readings;

std::string fixed(double value, int decimals) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(decimals) << value;
    return text.str();
}

std::string milliseconds(double microseconds) {
    return fixed(microseconds / 1000.0, 2) + " ms";
}

std::string format_text(std::uint32_t sample_rate, std::uint32_t block_frames) {
    if (sample_rate == 0) return "unknown";
    return std::to_string(sample_rate) + '/' + std::to_string(block_frames);
}

std::string peak_text(std::uint32_t permille) {
    return permille == 0 ? "silent" : fixed(20.0 * std::log10(permille / 1000.0), 1);
}

/// Every peak where they are few, else the loudest: a line has to stay readable.
std::string meters_text(std::span<const tavistro_channel_meter> meters) {
    constexpr std::size_t few = 2;
    if (meters.empty()) return "none";
    if (meters.size() > few) {
        const auto loudest = std::ranges::max(meters, {}, &tavistro_channel_meter::peak_permille);
        return peak_text(loudest.peak_permille) + " max of " + std::to_string(meters.size());
    }
    std::string text;
    for (const tavistro_channel_meter& meter : meters) {
        if (!text.empty()) text += ' ';
        text += peak_text(meter.peak_permille);
    }
    return text;
}

std::span<const tavistro_channel_meter> valid_meters(
    const tavistro_channel_meter (&meters)[TAVISTRO_MAX_METERS], std::uint32_t count) {
    return std::span(meters).first(std::min(count, TAVISTRO_MAX_METERS));
}

std::string status_text(const tavistro_engine_state& state) {
    const bool trouble =
        state.status_level == TAVISTRO_LEVEL_WARNING || state.status_level == TAVISTRO_LEVEL_ERROR;
    const std::string text(message_text(state.status_message));
    return trouble ? std::string(level_text(state.status_level)) + ": " + text : text;
}

/// What a running engine shows is its state; anything else needs the words.
std::string state_and_status_text(const tavistro_engine_state& state) {
    std::string name(state_text(state.state));
    if (state.status_message == TAVISTRO_MESSAGE_RUNNING) return name;
    return name + ", " + status_text(state);
}

std::string stats_text(const tavistro_stats_block& stats) {
    std::ostringstream text;
    text << "  buffer " << stats.playback_buffer_frames << '/' << stats.target_frames << " ("
         << milliseconds(stats.buffer_us) << ") read " << std::showpos
         << std::lround(read_speed_ppm(stats)) << std::noshowpos << " ppm  rtt "
         << milliseconds(stats.rtt_last_us) << "  drops " << stats.playback_dropped << '+'
         << stats.capture_dropped;
    return text.str();
}

class HumanReport : public Report {
  public:
    explicit HumanReport(std::ostream& out) : out_(out) {}

    void state_changed(double time_s, const tavistro_engine_state& state) override {
        line(time_s, "state") << std::setw(12) << std::left << state_text(state.state)
                              << status_text(state) << std::endl;
    }

    void event(double time_s, const NewEvent& news) override {
        const tavistro_engine_event& event = news.event;
        if (news.missed_before > 0) {
            line(time_s, "event") << news.missed_before << " events were missed" << std::endl;
        }
        line(time_s, "event") << '#' << event.sequence << ' ' << message_text(event.message) << " ("
                              << category_text(event.subject) << ", " << event_kind_text(event.kind)
                              << ", attempt " << event.attempt << " of " << event.max_attempts;
        if (event.error_code != TAVISTRO_ERROR_NONE) {
            out_ << ", error: " << error_text(event.error_code);
        }
        out_ << ')' << std::endl;
    }

    void status(double time_s, const tavistro_engine_state& state,
                const std::optional<tavistro_stats_block>& stats) override {
        line(time_s, "status")
            << std::setw(8) << std::left << state_and_status_text(state) << "  "
            << format_text(state.stream_sample_rate, state.stream_block_frames) << " on "
            << format_text(state.device_sample_rate, state.device_block_frames) << "  in "
            << meters_text(valid_meters(state.input_meters, state.input_meter_count)) << "  out "
            << meters_text(valid_meters(state.output_meters, state.output_meter_count)) << " dBFS";
        if (stats) out_ << stats_text(*stats);
        out_ << std::endl;
    }

    void summary(const RunSummary& summary) override {
        const auto row = [this](std::string_view name) -> std::ostream& {
            return out_ << "  " << std::setw(12) << std::left << name;
        };
        out_ << "\nsummary\n";
        row("ran") << fixed(summary.seconds, 1) << " s\n";
        if (summary.stats) {
            row("underruns") << summary.stats->underruns << '\n';
            row("overruns") << summary.stats->overruns << '\n';
            row("drops") << summary.stats->playback_dropped << " playback, "
                         << summary.stats->capture_dropped << " capture\n";
            row("max rtt") << milliseconds(summary.stats->rtt_max_us) << '\n';
        } else {
            row("statistics") << "none were published\n";
        }
        if (summary.has_played()) {
            row("cpu") << fixed(summary.cpu_seconds / summary.seconds, 3)
                       << " s per second of audio\n";
        }
        row("last state") << state_text(summary.last.state) << '\n';
        row("last error") << error_text(summary.last.error_code) << std::endl;
    }

  private:
    /// Begins a line with time and topic.
    std::ostream& line(double time_s, std::string_view topic) {
        return out_ << std::setw(9) << std::right << fixed(time_s, 3) << " s  " << std::setw(8)
                    << std::left << topic;
    }

    std::ostream& out_;
};

}  // namespace

std::unique_ptr<Report> make_human_report(std::ostream& out) {
    return std::make_unique<HumanReport>(out);
}

}  // namespace tavistro::host
