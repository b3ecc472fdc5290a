// Repeats a failed start of the client or the device, with up to twelve attempts in total.
#include <algorithm>

#include "engine/engine_runtime.h"
#include "platform/clock.h"

namespace tavistro {
namespace {

constexpr std::uint32_t max_start_attempts = 12;
constexpr std::uint32_t retry_pause_ms = 1000;

/// Longest time between two checks for a stop.
constexpr std::uint32_t pause_slice_ms = 50;

}  // namespace

/// Codes that the host sees during the retries of one part.
struct EngineRuntime::RetryPlan {
    StatusCategory subject;
    EngineState state;
    ErrorCode error;
    MessageId attempt_status;
    MessageId exhausted_error;
    MessageId attempt_event;
    MessageId failed_event;
    MessageId recovered_event;
    MessageId gave_up_event;
};

/// `begin_pause` is called after each failure except the last.
template <typename TryOnce, typename BeginPause>
bool EngineRuntime::start_with_retries(const RetryPlan& plan, TryOnce try_once,
                                       BeginPause begin_pause) {
    const auto record = [&](EventKind kind, std::uint32_t attempt, ErrorCode error,
                            MessageId message) {
        record_.record_event({kind, plan.subject, attempt, max_start_attempts, error, message});
    };
    for (std::uint32_t attempt = 1; attempt <= max_start_attempts; ++attempt) {
        if (stop_requested_) return false;
        if (attempt > 1) {
            record(EventKind::AttemptStarted, attempt, ErrorCode::None, plan.attempt_event);
            set_state(plan.state, {StatusLevel::Pending, plan.subject, plan.attempt_status});
        }
        const Attempt outcome = try_once();
        if (outcome == Attempt::hopeless) return false;
        if (outcome == Attempt::started) {
            if (attempt == 1) return true;
            clear_error();
            record(EventKind::Recovered, attempt, ErrorCode::None, plan.recovered_event);
            return true;
        }
        record(EventKind::AttemptFailed, attempt, plan.error, plan.failed_event);
        if (attempt == max_start_attempts) break;
        begin_pause();
        if (!wait_or_stop(retry_pause_ms)) return false;
    }
    if (stop_requested_) return false;
    record(EventKind::GaveUp, max_start_attempts, plan.error, plan.gave_up_event);
    set_error(plan.error, plan.exhausted_error);
    return false;
}

bool EngineRuntime::start_client_with_retries(const TavistroProtocol::ClientSettings& settings) {
    constexpr RetryPlan plan{
        .subject = StatusCategory::Network,
        .state = EngineState::Starting,
        .error = ErrorCode::ClientStartFailed,
        .attempt_status = MessageId::ClientAttempt,
        .exhausted_error = MessageId::ClientFailed,
        .attempt_event = MessageId::EventClientRetry,
        .failed_event = MessageId::EventClientFailed,
        .recovered_event = MessageId::EventClientRecovered,
        .gave_up_event = MessageId::EventClientGaveUp,
    };
    return start_with_retries(
        plan, [&] { return start_client(settings); },
        [this] {
            set_error(ErrorCode::ClientStartFailed, MessageId::ClientAttemptFailed);
            set_state(EngineState::Starting,
                      {StatusLevel::Pending, StatusCategory::Network, MessageId::ClientRetryWait});
        });
}

bool EngineRuntime::start_asio_with_retries(const AudioDeviceSettings& audio) {
    constexpr RetryPlan plan{
        .subject = StatusCategory::AudioDevice,
        .state = EngineState::Restarting,
        .error = ErrorCode::AudioDeviceFailed,
        .attempt_status = MessageId::AsioAttempt,
        .exhausted_error = MessageId::AsioFailed,
        .attempt_event = MessageId::EventAsioRetry,
        .failed_event = MessageId::EventAsioFailed,
        .recovered_event = MessageId::EventAsioRecovered,
        .gave_up_event = MessageId::EventAsioGaveUp,
    };
    return start_with_retries(
        plan, [&] { return start_asio(audio) ? Attempt::started : Attempt::failed; },
        [this] {
            set_state(EngineState::Restarting, {StatusLevel::Pending, StatusCategory::AudioDevice,
                                                MessageId::AsioRetryWait});
            stop_audio();
        });
}

bool EngineRuntime::wait_or_stop(std::uint32_t ms) {
    const std::uint64_t deadline_ms = platform::millisecond_tick() + ms;
    while (!stop_requested_) {
        const std::uint64_t now_ms = platform::millisecond_tick();
        if (now_ms >= deadline_ms) return true;
        worker_event_.wait_for_ms(static_cast<std::uint32_t>(
            std::min<std::uint64_t>(deadline_ms - now_ms, pause_slice_ms)));
    }
    return false;
}

}  // namespace tavistro
