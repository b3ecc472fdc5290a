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
    if (record_.state() != TAVISTRO_STATE_RUNNING) return;
    const Verdict verdict = supervision_.evaluate(telemetry, sync_is_stale());
    record_.set_status_while_running(verdict.status);
    if (verdict.recovery_reason) request_recovery(*verdict.recovery_reason);
}

void EngineRuntime::request_recovery(tavistro_status_category reason) {
    if (!recovery_enabled_ || stop_requested_) return;
    if (!recovery_request_.put_if_empty(reason)) return;
    record_recovery_event(TAVISTRO_EVENT_RECOVERY_REQUESTED, reason, recovery_attempts_ + 1,
                          TAVISTRO_ERROR_NONE, TAVISTRO_MESSAGE_EVENT_RECOVERY_REQUESTED);
}

void EngineRuntime::record_recovery_event(tavistro_event_kind kind, tavistro_status_category reason,
                                          std::uint32_t attempt, tavistro_error_code error_code,
                                          tavistro_message_id message) noexcept {
    record_.record_event({kind, reason, attempt, max_recovery_attempts, error_code, message});
}

bool EngineRuntime::apply_pending_format_change(EngineConfig& config) {
    const auto pending = format_change_.take();
    if (!pending) return true;
    set_state(TAVISTRO_STATE_RESTARTING, {TAVISTRO_LEVEL_PENDING, TAVISTRO_CATEGORY_AUDIO_DEVICE,
                                          TAVISTRO_MESSAGE_FORMAT_CHANGED});
    stop_audio();
    config.audio.sample_rate = pending->sample_rate;
    config.audio.block_size = pending->block_frames;
    if (!set_capture_format(config.audio)) {
        set_error(TAVISTRO_ERROR_STREAM_FORMAT_REJECTED, TAVISTRO_MESSAGE_STREAM_FORMAT_REFUSED);
        return give_up();
    }
    set_stream_format(config.audio);
    if (!start_audio(config)) return give_up();
    set_state(TAVISTRO_STATE_RUNNING, status_running);
    clear_error();
    reset_supervision();
    return true;
}

bool EngineRuntime::run_device_recovery(const EngineConfig& config) {
    if (!recovery_enabled_ || platform::millisecond_tick() < next_recovery_ms_) return true;
    const auto reason = recovery_request_.take();
    if (!reason) return true;

    const auto record = [&](tavistro_event_kind kind, tavistro_error_code error,
                            tavistro_message_id message) {
        record_recovery_event(kind, *reason, recovery_attempts_, error, message);
    };
    const auto show = [&](tavistro_message_id message) {
        set_state(TAVISTRO_STATE_RESTARTING, {TAVISTRO_LEVEL_PENDING, *reason, message});
    };

    if (recovery_attempts_ >= max_recovery_attempts) {
        record(TAVISTRO_EVENT_GAVE_UP, TAVISTRO_ERROR_AUDIO_DEVICE_FAILED,
               TAVISTRO_MESSAGE_EVENT_RECOVERY_GAVE_UP);
        set_error(TAVISTRO_ERROR_AUDIO_DEVICE_FAILED, TAVISTRO_MESSAGE_RECOVERY_GAVE_UP);
        return give_up();
    }
    ++recovery_attempts_;
    record(TAVISTRO_EVENT_ATTEMPT_STARTED, TAVISTRO_ERROR_NONE,
           TAVISTRO_MESSAGE_EVENT_RECOVERY_ATTEMPT);
    show(TAVISTRO_MESSAGE_RECOVERY_ATTEMPT);
    stop_audio();
    if (!set_capture_format(config.audio)) {
        record(TAVISTRO_EVENT_ATTEMPT_FAILED, TAVISTRO_ERROR_STREAM_FORMAT_REJECTED,
               TAVISTRO_MESSAGE_EVENT_RECOVERY_FORMAT_REFUSED);
        set_error(TAVISTRO_ERROR_STREAM_FORMAT_REJECTED, TAVISTRO_MESSAGE_RECOVERY_FORMAT_REFUSED);
        return give_up();
    }
    if (!start_audio(config)) {
        record(TAVISTRO_EVENT_ATTEMPT_FAILED, TAVISTRO_ERROR_AUDIO_DEVICE_FAILED,
               TAVISTRO_MESSAGE_EVENT_RECOVERY_FAILED);
        next_recovery_ms_ = platform::millisecond_tick() + recovery_pause_ms;
        show(TAVISTRO_MESSAGE_RECOVERY_ATTEMPT_FAILED);
        recovery_request_.put(*reason);
        return true;
    }
    clear_error();
    record(TAVISTRO_EVENT_RECOVERED, TAVISTRO_ERROR_NONE, TAVISTRO_MESSAGE_EVENT_DEVICE_RECOVERED);
    // The last report of the old device may have asked again after its request was taken.
    recovery_request_.clear();
    reset_supervision();
    set_state(TAVISTRO_STATE_RUNNING, {TAVISTRO_LEVEL_HEALTHY, TAVISTRO_CATEGORY_ENGINE,
                                       TAVISTRO_MESSAGE_DEVICE_RECOVERED});
    return true;
}

/// After a restart of the audio path: the player's counters and the attempts begin anew.
void EngineRuntime::reset_supervision() noexcept {
    supervision_.reset();
    recovery_attempts_ = 0;
    next_recovery_ms_ = 0;
}

/// A failure while running ends the run; the teardown is that of a stop.
bool EngineRuntime::give_up() noexcept {
    set_state(TAVISTRO_STATE_FAILED);
    stop_requested_ = true;
    return false;
}

void EngineRuntime::check_sync_loss() {
    if (audio_accepting_ && record_.state() == TAVISTRO_STATE_RUNNING && sync_is_stale()) {
        record_.set_status(status_sync_lost);
    }
}

bool EngineRuntime::sync_is_stale() const noexcept {
    const std::uint64_t last_ms = last_sync_ms_;  // before the tick, so that it is never ahead
    return last_ms != 0 && platform::millisecond_tick() - last_ms > sync_silence_limit_ms;
}

}  // namespace tavistro
