#include "engine/player_supervision.h"

namespace tavistro {
namespace {

/// One report without a device period may be an accident of timing, two are not.
constexpr std::uint32_t stall_reports = 2;

constexpr Status warning(tavistro_status_category category, tavistro_message_id message) {
    return {TAVISTRO_LEVEL_WARNING, category, message};
}

/// Counters of faults, most telling first: the first that moved is reported, the others wait for
/// the next report.
struct FaultCounter {
    std::uint64_t PlayerTelemetry::*value;
    Status status;
};
constexpr std::array<FaultCounter, PlayerSupervision::counter_count> fault_counters{{
    {&PlayerTelemetry::output_ready_failures,
     warning(TAVISTRO_CATEGORY_OUTPUT_READY_FAILURE, TAVISTRO_MESSAGE_OUTPUT_READY_FAILURES)},
    {&PlayerTelemetry::captureDropped,
     warning(TAVISTRO_CATEGORY_CAPTURE_DROP, TAVISTRO_MESSAGE_CAPTURE_DROPS)},
    {&PlayerTelemetry::playbackDropped,
     warning(TAVISTRO_CATEGORY_PLAYBACK_DROP, TAVISTRO_MESSAGE_PLAYBACK_DROPS)},
    {&PlayerTelemetry::overruns, warning(TAVISTRO_CATEGORY_OVERRUN, TAVISTRO_MESSAGE_OVERRUNS)},
    {&PlayerTelemetry::underruns, warning(TAVISTRO_CATEGORY_UNDERRUN, TAVISTRO_MESSAGE_UNDERRUNS)},
}};

bool both_known_and_different(std::uint32_t configured, std::uint32_t actual) {
    return configured != 0 && actual != 0 && configured != actual;
}

Status mismatch_status(const PlayerTelemetry& telemetry) {
    return telemetry.configured_sample_rate != telemetry.actual_sample_rate
               ? warning(TAVISTRO_CATEGORY_SAMPLE_RATE_MISMATCH,
                         TAVISTRO_MESSAGE_SAMPLE_RATE_DIFFERS)
               : warning(TAVISTRO_CATEGORY_BLOCK_SIZE_MISMATCH,
                         TAVISTRO_MESSAGE_BLOCK_SIZE_DIFFERS);
}

Verdict recovery(tavistro_status_category reason, tavistro_message_id message) {
    return {warning(reason, message), reason};
}

}  // namespace

Verdict PlayerSupervision::evaluate(const PlayerTelemetry& telemetry, bool sync_stale) noexcept {
    const std::lock_guard lock(mutex_);
    if (sync_stale) return {status_sync_lost};
    if (telemetry.device_fault) {
        return recovery(TAVISTRO_CATEGORY_DEVICE_RESET, TAVISTRO_MESSAGE_DEVICE_RESET_REQUESTED);
    }
    if (format_differs(telemetry)) {
        last_format_drops_ = telemetry.format_drops;
        return {mismatch_status(telemetry)};
    }
    if (stalled(telemetry)) {
        return recovery(TAVISTRO_CATEGORY_DEVICE_STALL, TAVISTRO_MESSAGE_DEVICE_STALLED);
    }
    for (std::size_t i = 0; i < fault_counters.size(); ++i) {
        const std::uint64_t now = telemetry.*fault_counters[i].value;
        if (now == last_counters_[i]) continue;
        last_counters_[i] = now;
        return {fault_counters[i].status};
    }
    return {status_running};
}

void PlayerSupervision::reset() noexcept {
    const std::lock_guard lock(mutex_);
    last_counters_ = {};
    last_format_drops_ = 0;
    stall_streak_ = 0;
}

bool PlayerSupervision::format_differs(const PlayerTelemetry& telemetry) const noexcept {
    return both_known_and_different(telemetry.configured_sample_rate,
                                    telemetry.actual_sample_rate) ||
           both_known_and_different(telemetry.configured_block_size,
                                    telemetry.actual_block_frames) ||
           telemetry.format_drops != last_format_drops_;
}

bool PlayerSupervision::stalled(const PlayerTelemetry& telemetry) noexcept {
    if (telemetry.callbacks_total == 0 || telemetry.callbacksPerSec != 0) {
        stall_streak_ = 0;
        return false;
    }
    return ++stall_streak_ >= stall_reports;
}

}  // namespace tavistro
