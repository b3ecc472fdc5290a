#include "engine/player_supervision.h"

#include <array>

namespace tavistro {
namespace {

/// A single report without a device period can be a matter of timing.
constexpr std::uint32_t stall_reports = 2;

constexpr Status warning(StatusCategory category, MessageId message) {
    return {StatusLevel::Warning, category, message};
}

/// A fault counter, its value at the last report, and the status that a rise sets.
struct FaultCounter {
    std::uint64_t PlayerTelemetry::*value;
    std::uint64_t SupervisionMemory::*last;
    Status status;
};
/// In order of priority: one report shows the first that rose, later reports the others.
constexpr std::array<FaultCounter, 5> fault_counters{{
    {&PlayerTelemetry::output_ready_failures, &SupervisionMemory::last_output_ready_failures,
     warning(StatusCategory::OutputReadyFailure, MessageId::OutputReadyFailures)},
    {&PlayerTelemetry::captureDropped, &SupervisionMemory::last_capture_dropped,
     warning(StatusCategory::CaptureDrop, MessageId::CaptureDrops)},
    {&PlayerTelemetry::playbackDropped, &SupervisionMemory::last_playback_dropped,
     warning(StatusCategory::PlaybackDrop, MessageId::PlaybackDrops)},
    {&PlayerTelemetry::overruns, &SupervisionMemory::last_overruns,
     warning(StatusCategory::Overrun, MessageId::Overruns)},
    {&PlayerTelemetry::underruns, &SupervisionMemory::last_underruns,
     warning(StatusCategory::Underrun, MessageId::Underruns)},
}};

bool both_known_and_different(std::uint32_t configured, std::uint32_t actual) {
    return configured != 0 && actual != 0 && configured != actual;
}

Status mismatch_status(const PlayerTelemetry& telemetry) {
    return telemetry.configured_sample_rate != telemetry.actual_sample_rate
               ? warning(StatusCategory::SampleRateMismatch, MessageId::SampleRateDiffers)
               : warning(StatusCategory::BlockSizeMismatch, MessageId::BlockSizeDiffers);
}

Verdict recovery(StatusCategory reason, MessageId message) {
    return {warning(reason, message), reason};
}

}  // namespace

Verdict PlayerSupervision::evaluate(const PlayerTelemetry& telemetry, bool sync_stale) noexcept {
    const std::lock_guard lock(mutex_);
    if (sync_stale) return {status_sync_lost};
    if (telemetry.device_fault) {
        return recovery(StatusCategory::DeviceReset, MessageId::DeviceResetRequested);
    }
    if (format_differs(telemetry)) {
        memory_.last_format_drops = telemetry.format_drops;
        return {mismatch_status(telemetry)};
    }
    if (stalled(telemetry)) {
        return recovery(StatusCategory::DeviceStall, MessageId::DeviceStalled);
    }
    for (const FaultCounter& counter : fault_counters) {
        std::uint64_t& last = memory_.*counter.last;
        if (telemetry.*counter.value == last) continue;
        last = telemetry.*counter.value;
        return {counter.status};
    }
    return {status_running};
}

void PlayerSupervision::reset_supervision() noexcept {
    const std::lock_guard lock(mutex_);
    memory_ = {};
}

bool PlayerSupervision::format_differs(const PlayerTelemetry& telemetry) const noexcept {
    return both_known_and_different(telemetry.configured_sample_rate,
                                    telemetry.actual_sample_rate) ||
           both_known_and_different(telemetry.configured_block_size,
                                    telemetry.actual_block_frames) ||
           telemetry.format_drops != memory_.last_format_drops;
}

bool PlayerSupervision::stalled(const PlayerTelemetry& telemetry) noexcept {
    if (telemetry.callbacks_total == 0 || telemetry.callbacksPerSec != 0) {
        memory_.stall_streak = 0;
        return false;
    }
    return ++memory_.stall_streak >= stall_reports;
}

}  // namespace tavistro
