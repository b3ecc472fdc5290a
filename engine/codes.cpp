// Asserts that the typed codes have the values of the public constants.
#include "engine/codes.h"

#include "tavistro/engine.h"

namespace tavistro {
namespace {

template <typename Code>
constexpr bool same(Code code, unsigned constant) {
    return code_of(code) == constant;
}

static_assert(same(EngineState::Idle, TAVISTRO_STATE_IDLE));
static_assert(same(EngineState::Starting, TAVISTRO_STATE_STARTING));
static_assert(same(EngineState::Connected, TAVISTRO_STATE_CONNECTED));
static_assert(same(EngineState::Running, TAVISTRO_STATE_RUNNING));
static_assert(same(EngineState::Restarting, TAVISTRO_STATE_RESTARTING));
static_assert(same(EngineState::Stopping, TAVISTRO_STATE_STOPPING));
static_assert(same(EngineState::Stopped, TAVISTRO_STATE_STOPPED));
static_assert(same(EngineState::Failed, TAVISTRO_STATE_FAILED));

static_assert(same(StatusLevel::None, TAVISTRO_LEVEL_NONE));
static_assert(same(StatusLevel::Healthy, TAVISTRO_LEVEL_HEALTHY));
static_assert(same(StatusLevel::Warning, TAVISTRO_LEVEL_WARNING));
static_assert(same(StatusLevel::Pending, TAVISTRO_LEVEL_PENDING));
static_assert(same(StatusLevel::Error, TAVISTRO_LEVEL_ERROR));

static_assert(same(StatusCategory::Engine, TAVISTRO_CATEGORY_ENGINE));
static_assert(same(StatusCategory::Network, TAVISTRO_CATEGORY_NETWORK));
static_assert(same(StatusCategory::DeviceStall, TAVISTRO_CATEGORY_DEVICE_STALL));
static_assert(same(StatusCategory::SampleRateMismatch, TAVISTRO_CATEGORY_SAMPLE_RATE_MISMATCH));
static_assert(same(StatusCategory::BlockSizeMismatch, TAVISTRO_CATEGORY_BLOCK_SIZE_MISMATCH));
static_assert(same(StatusCategory::Underrun, TAVISTRO_CATEGORY_UNDERRUN));
static_assert(same(StatusCategory::Overrun, TAVISTRO_CATEGORY_OVERRUN));
static_assert(same(StatusCategory::CaptureDrop, TAVISTRO_CATEGORY_CAPTURE_DROP));
static_assert(same(StatusCategory::PlaybackDrop, TAVISTRO_CATEGORY_PLAYBACK_DROP));
static_assert(same(StatusCategory::AudioDevice, TAVISTRO_CATEGORY_AUDIO_DEVICE));
static_assert(same(StatusCategory::DeviceReset, TAVISTRO_CATEGORY_DEVICE_RESET));
static_assert(same(StatusCategory::OutputReadyFailure, TAVISTRO_CATEGORY_OUTPUT_READY_FAILURE));
static_assert(same(StatusCategory::Compatibility, TAVISTRO_CATEGORY_COMPATIBILITY));

static_assert(same(ErrorCode::None, TAVISTRO_ERROR_NONE));
static_assert(same(ErrorCode::NoConfigPath, TAVISTRO_ERROR_NO_CONFIG_PATH));
static_assert(same(ErrorCode::AlreadyStarted, TAVISTRO_ERROR_ALREADY_STARTED));
static_assert(same(ErrorCode::ConfigInvalid, TAVISTRO_ERROR_CONFIG_INVALID));
static_assert(same(ErrorCode::ClientStartFailed, TAVISTRO_ERROR_CLIENT_START_FAILED));
static_assert(same(ErrorCode::StoppedBeforeStream, TAVISTRO_ERROR_STOPPED_BEFORE_STREAM));
static_assert(same(ErrorCode::StreamFormatRejected, TAVISTRO_ERROR_STREAM_FORMAT_REJECTED));
static_assert(same(ErrorCode::AudioDeviceFailed, TAVISTRO_ERROR_AUDIO_DEVICE_FAILED));
static_assert(same(ErrorCode::WorkerStartFailed, TAVISTRO_ERROR_WORKER_START_FAILED));
static_assert(same(ErrorCode::StatsBlockFailed, TAVISTRO_ERROR_STATS_BLOCK_FAILED));
static_assert(same(ErrorCode::ServerIncompatible, TAVISTRO_ERROR_SERVER_INCOMPATIBLE));

static_assert(same(EventKind::RecoveryRequested, TAVISTRO_EVENT_RECOVERY_REQUESTED));
static_assert(same(EventKind::AttemptStarted, TAVISTRO_EVENT_ATTEMPT_STARTED));
static_assert(same(EventKind::AttemptFailed, TAVISTRO_EVENT_ATTEMPT_FAILED));
static_assert(same(EventKind::Recovered, TAVISTRO_EVENT_RECOVERED));
static_assert(same(EventKind::GaveUp, TAVISTRO_EVENT_GAVE_UP));

static_assert(same(MessageId::None, TAVISTRO_MESSAGE_NONE));
static_assert(same(MessageId::NoConfigPath, TAVISTRO_MESSAGE_NO_CONFIG_PATH));
static_assert(same(MessageId::AlreadyStarted, TAVISTRO_MESSAGE_ALREADY_STARTED));
static_assert(same(MessageId::Starting, TAVISTRO_MESSAGE_STARTING));
static_assert(same(MessageId::WorkerStartFailed, TAVISTRO_MESSAGE_WORKER_START_FAILED));
static_assert(same(MessageId::ConfigNotLoaded, TAVISTRO_MESSAGE_CONFIG_NOT_LOADED));
static_assert(same(MessageId::StatsBlockFailed, TAVISTRO_MESSAGE_STATS_BLOCK_FAILED));
static_assert(same(MessageId::Stopped, TAVISTRO_MESSAGE_STOPPED));
static_assert(same(MessageId::WaitingForStream, TAVISTRO_MESSAGE_WAITING_FOR_STREAM));
static_assert(same(MessageId::StoppedBeforeStream, TAVISTRO_MESSAGE_STOPPED_BEFORE_STREAM));
static_assert(same(MessageId::StreamFormatRefused, TAVISTRO_MESSAGE_STREAM_FORMAT_REFUSED));
static_assert(same(MessageId::Running, TAVISTRO_MESSAGE_RUNNING));
static_assert(same(MessageId::Stopping, TAVISTRO_MESSAGE_STOPPING));
static_assert(same(MessageId::ClientAttempt, TAVISTRO_MESSAGE_CLIENT_ATTEMPT));
static_assert(same(MessageId::ClientAttemptFailed, TAVISTRO_MESSAGE_CLIENT_ATTEMPT_FAILED));
static_assert(same(MessageId::ClientRetryWait, TAVISTRO_MESSAGE_CLIENT_RETRY_WAIT));
static_assert(same(MessageId::ClientFailed, TAVISTRO_MESSAGE_CLIENT_FAILED));
static_assert(same(MessageId::AsioStartFailed, TAVISTRO_MESSAGE_ASIO_START_FAILED));
static_assert(same(MessageId::AsioAttempt, TAVISTRO_MESSAGE_ASIO_ATTEMPT));
static_assert(same(MessageId::AsioRetryWait, TAVISTRO_MESSAGE_ASIO_RETRY_WAIT));
static_assert(same(MessageId::AsioFailed, TAVISTRO_MESSAGE_ASIO_FAILED));
static_assert(same(MessageId::LoopbackStartFailed, TAVISTRO_MESSAGE_LOOPBACK_START_FAILED));
static_assert(same(MessageId::FormatChanged, TAVISTRO_MESSAGE_FORMAT_CHANGED));
static_assert(same(MessageId::RecoveryGaveUp, TAVISTRO_MESSAGE_RECOVERY_GAVE_UP));
static_assert(same(MessageId::RecoveryAttempt, TAVISTRO_MESSAGE_RECOVERY_ATTEMPT));
static_assert(same(MessageId::RecoveryFormatRefused, TAVISTRO_MESSAGE_RECOVERY_FORMAT_REFUSED));
static_assert(same(MessageId::RecoveryAttemptFailed, TAVISTRO_MESSAGE_RECOVERY_ATTEMPT_FAILED));
static_assert(same(MessageId::DeviceRecovered, TAVISTRO_MESSAGE_DEVICE_RECOVERED));
static_assert(same(MessageId::SyncLost, TAVISTRO_MESSAGE_SYNC_LOST));
static_assert(same(MessageId::DeviceResetRequested, TAVISTRO_MESSAGE_DEVICE_RESET_REQUESTED));
static_assert(same(MessageId::SampleRateDiffers, TAVISTRO_MESSAGE_SAMPLE_RATE_DIFFERS));
static_assert(same(MessageId::BlockSizeDiffers, TAVISTRO_MESSAGE_BLOCK_SIZE_DIFFERS));
static_assert(same(MessageId::DeviceStalled, TAVISTRO_MESSAGE_DEVICE_STALLED));
static_assert(same(MessageId::OutputReadyFailures, TAVISTRO_MESSAGE_OUTPUT_READY_FAILURES));
static_assert(same(MessageId::CaptureDrops, TAVISTRO_MESSAGE_CAPTURE_DROPS));
static_assert(same(MessageId::PlaybackDrops, TAVISTRO_MESSAGE_PLAYBACK_DROPS));
static_assert(same(MessageId::Overruns, TAVISTRO_MESSAGE_OVERRUNS));
static_assert(same(MessageId::Underruns, TAVISTRO_MESSAGE_UNDERRUNS));
static_assert(same(MessageId::EventRecoveryRequested, TAVISTRO_MESSAGE_EVENT_RECOVERY_REQUESTED));
static_assert(same(MessageId::EventClientRetry, TAVISTRO_MESSAGE_EVENT_CLIENT_RETRY));
static_assert(same(MessageId::EventAsioRetry, TAVISTRO_MESSAGE_EVENT_ASIO_RETRY));
static_assert(same(MessageId::EventRecoveryAttempt, TAVISTRO_MESSAGE_EVENT_RECOVERY_ATTEMPT));
static_assert(same(MessageId::EventClientFailed, TAVISTRO_MESSAGE_EVENT_CLIENT_FAILED));
static_assert(same(MessageId::EventAsioFailed, TAVISTRO_MESSAGE_EVENT_ASIO_FAILED));
static_assert(same(MessageId::EventRecoveryFailed, TAVISTRO_MESSAGE_EVENT_RECOVERY_FAILED));
static_assert(same(MessageId::EventRecoveryFormatRefused,
                   TAVISTRO_MESSAGE_EVENT_RECOVERY_FORMAT_REFUSED));
static_assert(same(MessageId::EventClientRecovered, TAVISTRO_MESSAGE_EVENT_CLIENT_RECOVERED));
static_assert(same(MessageId::EventAsioRecovered, TAVISTRO_MESSAGE_EVENT_ASIO_RECOVERED));
static_assert(same(MessageId::EventDeviceRecovered, TAVISTRO_MESSAGE_EVENT_DEVICE_RECOVERED));
static_assert(same(MessageId::EventClientGaveUp, TAVISTRO_MESSAGE_EVENT_CLIENT_GAVE_UP));
static_assert(same(MessageId::EventAsioGaveUp, TAVISTRO_MESSAGE_EVENT_ASIO_GAVE_UP));
static_assert(same(MessageId::EventRecoveryGaveUp, TAVISTRO_MESSAGE_EVENT_RECOVERY_GAVE_UP));
static_assert(same(MessageId::ServerIncompatible, TAVISTRO_MESSAGE_SERVER_INCOMPATIBLE));

}  // namespace
}  // namespace tavistro
