// A part that fails to start is started again, up to twelve times, while the host is told.
#include <algorithm>

#include "engine/engine_runtime.h"
#include "platform/clock.h"

namespace tavistro {
namespace {

constexpr std::uint32_t max_start_attempts = 12;
constexpr std::uint32_t retry_pause_ms = 1000;

/// How long a pause goes without looking for a stop.
constexpr std::uint32_t pause_slice_ms = 50;

}  // namespace

/// What the host is told while one of the parts is started again and again.
struct EngineRuntime::RetryPlan {
    tavistro_status_category subject;
    tavistro_state_code state;
    tavistro_error_code error;
    tavistro_message_id attempt_status;
    tavistro_message_id exhausted_error;
    tavistro_message_id attempt_event;
    tavistro_message_id failed_event;
    tavistro_message_id recovered_event;
    tavistro_message_id gave_up_event;
};

/// `begin_pause` is called after each failure that another attempt follows.
template <typename TryOnce, typename BeginPause>
bool EngineRuntime::start_with_retries(const RetryPlan& plan, TryOnce try_once,
                                       BeginPause begin_pause) {
    const auto record = [&](tavistro_event_kind kind, std::uint32_t attempt,
                            tavistro_error_code error, tavistro_message_id message) {
        record_.record_event({kind, plan.subject, attempt, max_start_attempts, error, message});
    };
    for (std::uint32_t attempt = 1; attempt <= max_start_attempts; ++attempt) {
        if (stop_requested_) return false;
        if (attempt > 1) {
            record(TAVISTRO_EVENT_ATTEMPT_STARTED, attempt, TAVISTRO_ERROR_NONE,
                   plan.attempt_event);
            set_state(plan.state, {TAVISTRO_LEVEL_PENDING, plan.subject, plan.attempt_status});
        }
        const Attempt outcome = try_once();
        if (outcome == Attempt::hopeless) return false;
        if (outcome == Attempt::started) {
            if (attempt == 1) return true;
            clear_error();
            record(TAVISTRO_EVENT_RECOVERED, attempt, TAVISTRO_ERROR_NONE, plan.recovered_event);
            return true;
        }
        record(TAVISTRO_EVENT_ATTEMPT_FAILED, attempt, plan.error, plan.failed_event);
        if (attempt == max_start_attempts) break;
        begin_pause();
        if (!wait_or_stop(retry_pause_ms)) return false;
    }
    if (stop_requested_) return false;
    record(TAVISTRO_EVENT_GAVE_UP, max_start_attempts, plan.error, plan.gave_up_event);
    set_error(plan.error, plan.exhausted_error);
    return false;
}

bool EngineRuntime::start_client_with_retries(const TavistroProtocol::ClientSettings& settings) {
    constexpr RetryPlan plan{
        .subject = TAVISTRO_CATEGORY_NETWORK,
        .state = TAVISTRO_STATE_STARTING,
        .error = TAVISTRO_ERROR_CLIENT_START_FAILED,
        .attempt_status = TAVISTRO_MESSAGE_CLIENT_ATTEMPT,
        .exhausted_error = TAVISTRO_MESSAGE_CLIENT_FAILED,
        .attempt_event = TAVISTRO_MESSAGE_EVENT_CLIENT_RETRY,
        .failed_event = TAVISTRO_MESSAGE_EVENT_CLIENT_FAILED,
        .recovered_event = TAVISTRO_MESSAGE_EVENT_CLIENT_RECOVERED,
        .gave_up_event = TAVISTRO_MESSAGE_EVENT_CLIENT_GAVE_UP,
    };
    return start_with_retries(
        plan, [&] { return start_client(settings); },
        [this] {
            set_error(TAVISTRO_ERROR_CLIENT_START_FAILED, TAVISTRO_MESSAGE_CLIENT_ATTEMPT_FAILED);
            set_state(TAVISTRO_STATE_STARTING, {TAVISTRO_LEVEL_PENDING, TAVISTRO_CATEGORY_NETWORK,
                                                TAVISTRO_MESSAGE_CLIENT_RETRY_WAIT});
        });
}

bool EngineRuntime::start_asio_with_retries(const EngineConfig& config) {
    constexpr RetryPlan plan{
        .subject = TAVISTRO_CATEGORY_AUDIO_DEVICE,
        .state = TAVISTRO_STATE_RESTARTING,
        .error = TAVISTRO_ERROR_AUDIO_DEVICE_FAILED,
        .attempt_status = TAVISTRO_MESSAGE_ASIO_ATTEMPT,
        .exhausted_error = TAVISTRO_MESSAGE_ASIO_FAILED,
        .attempt_event = TAVISTRO_MESSAGE_EVENT_ASIO_RETRY,
        .failed_event = TAVISTRO_MESSAGE_EVENT_ASIO_FAILED,
        .recovered_event = TAVISTRO_MESSAGE_EVENT_ASIO_RECOVERED,
        .gave_up_event = TAVISTRO_MESSAGE_EVENT_ASIO_GAVE_UP,
    };
    return start_with_retries(
        plan, [&] { return start_audio(config) ? Attempt::started : Attempt::failed; },
        [this] {
            set_state(TAVISTRO_STATE_RESTARTING,
                      {TAVISTRO_LEVEL_PENDING, TAVISTRO_CATEGORY_AUDIO_DEVICE,
                       TAVISTRO_MESSAGE_ASIO_RETRY_WAIT});
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
