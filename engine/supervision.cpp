#include "engine/engine_runtime.h"
#include "platform/clock.h"

namespace tavistro {
namespace {

constexpr std::uint64_t sync_silence_limit_ms = 3000;
constexpr std::uint32_t max_recovery_attempts = 3;
constexpr std::uint64_t recovery_pause_ms = 1000;

}  // namespace

void EngineRuntime::supervise_player_telemetry(const AsioPlayer::Telemetry& telemetry) {
    record_.set_device_format(telemetry.actual_sample_rate, telemetry.actual_block_frames);
    if (record_.state() != EngineState::Running) return;
    const Verdict verdict = supervision_.evaluate(telemetry, sync_is_stale());
    record_.set_status_while_running(verdict.status);
    if (verdict.recovery_reason) request_recovery(*verdict.recovery_reason);
}

void EngineRuntime::request_recovery(StatusCategory reason) {
    if (!recovery_enabled_ || stop_requested_) return;
    if (!recovery_request_.put_if_empty(reason)) return;
    record_recovery_event(EventKind::RecoveryRequested, reason, recovery_attempts_ + 1,
                          ErrorCode::None, MessageId::EventRecoveryRequested);
}

void EngineRuntime::record_recovery_event(EventKind kind, StatusCategory reason,
                                          std::uint32_t attempt, ErrorCode error_code,
                                          MessageId message) noexcept {
    record_.record_event({kind, reason, attempt, max_recovery_attempts, error_code, message});
}

bool EngineRuntime::apply_pending_format_change(EngineConfig& config) {
    const auto pending = format_change_.take();
    if (!pending) return true;
    set_state(EngineState::Restarting,
              {StatusLevel::Pending, StatusCategory::AudioDevice, MessageId::FormatChanged});
    stop_audio();
    config.audio.sample_rate = pending->sample_rate;
    config.audio.block_size = pending->block_frames;
    if (!set_capture_format(config.audio)) {
        set_error(ErrorCode::StreamFormatRejected, MessageId::StreamFormatRefused);
        return give_up();
    }
    set_stream_format(config.audio);
    if (!start_audio(config)) return give_up();
    set_state(EngineState::Running, status_running);
    clear_error();
    reset_supervision();
    return true;
}

bool EngineRuntime::run_device_recovery(const EngineConfig& config) {
    if (!recovery_enabled_ || platform::millisecond_tick() < next_recovery_ms_) return true;
    const auto reason = recovery_request_.take();
    if (!reason) return true;

    const auto record = [&](EventKind kind, ErrorCode error, MessageId message) {
        record_recovery_event(kind, *reason, recovery_attempts_, error, message);
    };
    const auto show = [&](MessageId message) {
        set_state(EngineState::Restarting, {StatusLevel::Pending, *reason, message});
    };

    if (recovery_attempts_ >= max_recovery_attempts) {
        record(EventKind::GaveUp, ErrorCode::AudioDeviceFailed, MessageId::EventRecoveryGaveUp);
        set_error(ErrorCode::AudioDeviceFailed, MessageId::RecoveryGaveUp);
        return give_up();
    }
    ++recovery_attempts_;
    record(EventKind::AttemptStarted, ErrorCode::None, MessageId::EventRecoveryAttempt);
    show(MessageId::RecoveryAttempt);
    stop_audio();
    if (!set_capture_format(config.audio)) {
        record(EventKind::AttemptFailed, ErrorCode::StreamFormatRejected,
               MessageId::EventRecoveryFormatRefused);
        set_error(ErrorCode::StreamFormatRejected, MessageId::RecoveryFormatRefused);
        return give_up();
    }
    if (!start_audio(config)) {
        record(EventKind::AttemptFailed, ErrorCode::AudioDeviceFailed,
               MessageId::EventRecoveryFailed);
        next_recovery_ms_ = platform::millisecond_tick() + recovery_pause_ms;
        show(MessageId::RecoveryAttemptFailed);
        recovery_request_.put(*reason);
        return true;
    }
    clear_error();
    record(EventKind::Recovered, ErrorCode::None, MessageId::EventDeviceRecovered);
    // The old device's last report may have requested recovery again.
    recovery_request_.clear();
    reset_supervision();
    set_state(EngineState::Running,
              {StatusLevel::Healthy, StatusCategory::Engine, MessageId::DeviceRecovered});
    return true;
}

/// Called after a restart of the audio path: the player's counters restart at 0.
void EngineRuntime::reset_supervision() noexcept {
    supervision_.reset_supervision();
    recovery_attempts_ = 0;
    next_recovery_ms_ = 0;
}

/// Ends the run with state "failed"; the teardown is the same as for a stop.
bool EngineRuntime::give_up() noexcept {
    set_state(EngineState::Failed);
    stop_requested_ = true;
    return false;
}

void EngineRuntime::check_sync_loss() {
    if (audio_accepting_ && record_.state() == EngineState::Running && sync_is_stale()) {
        record_.set_status(status_sync_lost);
    }
}

bool EngineRuntime::sync_is_stale() const noexcept {
    const std::uint64_t last_ms = last_sync_ms_;  // read before the tick, so never later than it
    return last_ms != 0 && platform::millisecond_tick() - last_ms > sync_silence_limit_ms;
}

}  // namespace tavistro
