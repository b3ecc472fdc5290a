#include "audio/player_report.h"

#include <iomanip>
#include <locale>
#include <sstream>
#include <utility>

namespace tavistro {

namespace {

constexpr std::uint64_t report_interval_ms = 1000;

std::ostringstream fixed_point_text() {
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << std::fixed;
    return text;
}

std::string rates_line(const PlayerTelemetry& t) {
    std::ostringstream text = fixed_point_text();
    text << "[asio] recvBlocksPerSec=" << t.recvBlocksPerSec
         << " callbacksPerSec=" << t.callbacksPerSec << " dequeuedPerSec=" << t.dequeuedPerSec
         << " pll_ratio=" << std::setprecision(6) << t.pll_ratio
         << " renderedFrames=" << t.renderedFrames;
    return text.str();
}

std::string buffer_line(const PlayerTelemetry& t) {
    std::ostringstream text = fixed_point_text();
    text << "[asio] playbackBuffer frames=" << t.playback_buffer_frames << std::setprecision(2)
         << " blocks=" << t.buffer_blocks << " ms=" << t.buffer_ms
         << " target_frames=" << t.target_frames << " error_frames=" << std::setprecision(1)
         << t.error_frames << " minFrames=" << t.minFrames << " maxFrames=" << t.maxFrames
         << " underruns=" << t.underruns << " overruns=" << t.overruns
         << " playbackDropped=" << t.playbackDropped << " captureDropped=" << t.captureDropped;
    return text.str();
}

}  // namespace

void PlayerReporter::restart(std::uint64_t now_ms) noexcept {
    *this = {};
    previous_tick_ms_ = now_ms;
}

bool PlayerReporter::due(std::uint64_t now_ms) const noexcept {
    return now_ms - previous_tick_ms_ >= report_interval_ms;
}

PlayerTelemetry PlayerReporter::take(PeriodPath& periods, const AudioDeviceSettings& settings,
                                     bool device_fault, std::uint64_t now_ms) noexcept {
    const auto since_previous = [](std::uint64_t& previous, std::uint64_t total) {
        return total - std::exchange(previous, total);
    };
    const PlaybackCounters& counters = periods.playback().counters();
    PlayerTelemetry t = periods.take_telemetry();
    t.recvBlocksPerSec = since_previous(previous_received_, counters.received_blocks.load());
    t.dequeuedPerSec = since_previous(previous_dequeued_, counters.dequeued_blocks.load());
    t.callbacksPerSec = since_previous(previous_callbacks_, t.callbacks_total);
    t.device_fault = device_fault;
    t.configured_sample_rate = settings.sample_rate;
    t.configured_block_size = static_cast<std::uint16_t>(settings.block_size);
    previous_tick_ms_ = now_ms;
    return t;
}

std::array<std::string, 2> report_lines(const PlayerTelemetry& telemetry) {
    return {rates_line(telemetry), buffer_line(telemetry)};
}

}  // namespace tavistro
