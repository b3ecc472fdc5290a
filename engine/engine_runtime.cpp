#include "engine/engine_runtime.h"

#include <new>
#include <optional>
#include <utility>

#include "config/engine_config.h"

namespace tavistro {
namespace {

constexpr std::uint32_t supervision_period_ms = 100;

/// Longest time between two checks for the stream format and for a stop.
constexpr std::uint32_t sync_wait_slice_ms = 100;

std::optional<EngineConfig> load(const std::string& path) noexcept {
    try {
        EngineConfig config;
        std::string reason;  // unused: the record has no text
        if (load_engine_config(path, config, reason)) return config;
    } catch (const std::bad_alloc&) {
        // The default settings allocate too.
    }
    return {};
}

}  // namespace

EngineRuntime::EngineRuntime(DeviceFactory create_device) : player_(std::move(create_device)) {}

bool EngineRuntime::start(const char* path) noexcept {
    if (!path || *path == '\0') {
        set_error(ErrorCode::NoConfigPath, MessageId::NoConfigPath);
        return false;
    }
    if (worker_.joinable()) {
        set_error(ErrorCode::AlreadyStarted, MessageId::AlreadyStarted);
        return false;
    }
    stop_requested_ = false;
    audio_accepting_ = false;
    active_format_ = StreamFormat{};
    last_sync_ms_ = 0;
    supervision_.reset_supervision();
    recovery_enabled_ = false;
    recovery_attempts_ = 0;
    next_recovery_ms_ = 0;
    first_sync_.clear();
    format_change_.clear();
    recovery_request_.clear();
    record_.reset_for_start();

    bool launched = false;
    try {
        launched = worker_.start("tav-worker", [this, copy = std::string(path)] { run(copy); });
    } catch (...) {  // the copy of the path ran out of memory
    }
    if (!launched) {
        set_failed(ErrorCode::WorkerStartFailed, MessageId::WorkerStartFailed);
    }
    return launched;
}

void EngineRuntime::stop() noexcept {
    stop_requested_ = true;
    worker_event_.signal();
    worker_.join();
}

void EngineRuntime::run(const std::string& path) noexcept {
    if (auto config = load(path)) {
        try {
            if (prepare(*config)) run_stages(*config);
        } catch (...) {
            end_after_exception();
        }
    } else {
        set_failed(ErrorCode::ConfigInvalid, MessageId::ConfigNotLoaded);
    }
    stats_.close();
}

bool EngineRuntime::prepare(const EngineConfig& config) {
    recovery_enabled_ = !config.loopback_device;
    record_.set_client_id(config.client.client_id);
    record_.set_meter_channels(config.client.driver_inputs, config.client.driver_outputs);
    if (!stats_.open(config.client.client_id)) {
        set_failed(ErrorCode::StatsBlockFailed, MessageId::StatsBlockFailed);
        return false;
    }
    stats_.write_error(ErrorCode::None);
    stats_.write_state(EngineState::Starting);
    return true;
}

void EngineRuntime::run_stages(EngineConfig& config) {
    if (!start_client_with_retries(config.client)) return end_after_retries();
    set_state(EngineState::Connected,
              {StatusLevel::Pending, StatusCategory::Network, MessageId::WaitingForStream});

    if (!wait_for_first_sync(config.audio)) {
        set_error(ErrorCode::StoppedBeforeStream, MessageId::StoppedBeforeStream);
        client_.stop();
        return set_state(EngineState::Stopped);
    }
    if (!set_capture_format(config.audio)) {
        set_error(ErrorCode::StreamFormatRejected, MessageId::StreamFormatRefused);
        client_.stop();
        return set_state(EngineState::Failed);
    }
    set_stream_format(config.audio);

    if (config.loopback_device) {
        if (!start_loopback_asio(config.audio)) {
            client_.stop();
            return set_state(EngineState::Failed);
        }
    } else if (!start_asio_with_retries(config.audio)) {
        client_.stop();
        return end_after_retries();
    }
    set_state(EngineState::Running, status_running);
    supervise_until_stopped(config);
}

bool EngineRuntime::wait_for_first_sync(AudioDeviceSettings& audio) {
    for (;;) {
        // Checked before the stop, so that the record shows a format that has arrived.
        if (const auto info = first_sync_.peek()) {
            audio.sample_rate = info->sample_rate;
            audio.block_size = info->block_frames;
            return true;
        }
        if (stop_requested_) return false;
        worker_event_.wait_for_ms(sync_wait_slice_ms);
    }
}

void EngineRuntime::supervise_until_stopped(EngineConfig& config) {
    while (!stop_requested_) {
        if (!apply_pending_format_change(config) || !run_device_recovery(config)) break;
        check_sync_loss();
        worker_event_.wait_for_ms(supervision_period_ms);
    }
    const bool failed = record_.state() == EngineState::Failed;
    if (!failed) {
        set_state(EngineState::Stopping,
                  {StatusLevel::Pending, StatusCategory::Engine, MessageId::Stopping});
    }
    stop_audio();
    client_.stop();
    if (!failed) set_state(EngineState::Stopped, status_stopped);
}

/// Called after a stop during the attempts, or after the last attempt has failed and set its error.
void EngineRuntime::end_after_retries() noexcept {
    if (!stop_requested_) return set_state(EngineState::Failed);
    clear_error();
    set_state(EngineState::Stopped, status_stopped);
}

/// An exception that no part handles, for example from the device factory, ends the run with the
/// error of the part that was starting. Does not allocate.
void EngineRuntime::end_after_exception() noexcept {
    stop_audio();
    client_.stop();
    if (record_.snapshot_state().stream_sample_rate == 0) {
        set_failed(ErrorCode::ClientStartFailed, MessageId::ClientFailed);
    } else if (recovery_enabled_) {
        set_failed(ErrorCode::AudioDeviceFailed, MessageId::AsioStartFailed);
    } else {
        set_failed(ErrorCode::AudioDeviceFailed, MessageId::LoopbackStartFailed);
    }
}

void EngineRuntime::set_state(EngineState state) noexcept {
    record_.set_state(state);
    stats_.write_state(state);
}

void EngineRuntime::set_state(EngineState state, const Status& status) noexcept {
    record_.set_state(state, status);
    stats_.write_state(state);
}

void EngineRuntime::set_error(ErrorCode code, MessageId detail) noexcept {
    record_.set_error(code, detail);
    stats_.write_error(code);
}

void EngineRuntime::set_failed(ErrorCode code, MessageId detail) noexcept {
    set_error(code, detail);
    set_state(EngineState::Failed);
}

void EngineRuntime::set_stream_format(const AudioDeviceSettings& audio) noexcept {
    record_.set_stream_format(audio.sample_rate, audio.block_size);
    stats_.write_stream_format(audio.sample_rate, audio.block_size);
}

}  // namespace tavistro
