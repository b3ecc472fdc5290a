// Typed codes of the state record: the compiler rejects a level in place of a category. codes.cpp
// asserts that the values equal those in tavistro/engine.h.
#pragma once

#include <cstdint>
#include <type_traits>

namespace tavistro {

enum class EngineState : std::uint32_t {
    Idle = 0,
    Starting = 1,
    Connected = 2,
    Running = 3,
    Restarting = 4,
    Stopping = 5,
    Stopped = 6,
    Failed = 7,
};

/// Severity of the current status.
enum class StatusLevel : std::uint32_t {
    None = 0,
    Healthy = 1,
    Warning = 2,
    Pending = 3,
    Error = 4,
};

/// Subject of a status or an event.
enum class StatusCategory : std::uint32_t {
    Engine = 0,
    Network = 1,
    DeviceStall = 2,
    SampleRateMismatch = 3,
    BlockSizeMismatch = 4,
    Underrun = 5,
    Overrun = 6,
    CaptureDrop = 7,
    PlaybackDrop = 8,
    AudioDevice = 9,
    DeviceReset = 10,
    OutputReadyFailure = 11,
    Compatibility = 12,
};

/// Why a run failed; 8 is unused.
enum class ErrorCode : std::uint32_t {
    None = 0,
    NoConfigPath = 1,
    AlreadyStarted = 2,
    ConfigInvalid = 3,
    ClientStartFailed = 4,
    StoppedBeforeStream = 5,
    StreamFormatRejected = 6,
    AudioDeviceFailed = 7,
    WorkerStartFailed = 9,
    StatsBlockFailed = 10,
    ServerIncompatible = 11,
};

/// Kind of an entry in the event history.
enum class EventKind : std::uint32_t {
    RecoveryRequested = 1,
    AttemptStarted = 2,
    AttemptFailed = 3,
    Recovered = 4,
    GaveUp = 5,
};

/// Selects the text that the host shows for a status, error or event.
enum class MessageId : std::uint32_t {
    None = 0,
    NoConfigPath = 1,
    AlreadyStarted = 2,
    Starting = 3,
    WorkerStartFailed = 4,
    ConfigNotLoaded = 5,
    StatsBlockFailed = 6,
    Stopped = 7,
    WaitingForStream = 8,
    StoppedBeforeStream = 9,
    StreamFormatRefused = 10,
    Running = 11,
    Stopping = 12,
    ClientAttempt = 13,
    ClientAttemptFailed = 14,
    ClientRetryWait = 15,
    ClientFailed = 16,
    AsioStartFailed = 17,
    AsioAttempt = 18,
    AsioRetryWait = 19,
    AsioFailed = 20,
    LoopbackStartFailed = 21,
    FormatChanged = 22,
    RecoveryGaveUp = 23,
    RecoveryAttempt = 24,
    RecoveryFormatRefused = 25,
    RecoveryAttemptFailed = 26,
    DeviceRecovered = 27,
    SyncLost = 28,
    DeviceResetRequested = 29,
    SampleRateDiffers = 30,
    BlockSizeDiffers = 31,
    DeviceStalled = 32,
    OutputReadyFailures = 33,
    CaptureDrops = 34,
    PlaybackDrops = 35,
    Overruns = 36,
    Underruns = 37,
    EventRecoveryRequested = 38,
    EventClientRetry = 39,
    EventAsioRetry = 40,
    EventRecoveryAttempt = 41,
    EventClientFailed = 42,
    EventAsioFailed = 43,
    EventRecoveryFailed = 44,
    EventRecoveryFormatRefused = 45,
    EventClientRecovered = 46,
    EventAsioRecovered = 47,
    EventDeviceRecovered = 48,
    EventClientGaveUp = 49,
    EventAsioGaveUp = 50,
    EventRecoveryGaveUp = 51,
    ServerIncompatible = 52,
};

/// The value of `code` in the state record and the statistics block.
template <typename Code>
constexpr std::uint32_t code_of(Code code) noexcept {
    static_assert(std::is_enum_v<Code>);
    return static_cast<std::uint32_t>(code);
}

}  // namespace tavistro
