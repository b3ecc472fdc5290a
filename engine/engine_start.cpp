// Single attempts to start the client and the player, with the callbacks that they get.
#include "engine/engine_runtime.h"

namespace tavistro {
namespace {

/// The host interface has no text, so log lines are discarded.
void discard_log(const std::string&) {}

}  // namespace

EngineRuntime::Attempt EngineRuntime::start_client(
    const TavistroProtocol::ClientSettings& settings) {
    const bool started = client_.start(
        settings, discard_log, [this](const auto& block) { on_output_block(block); },
        [this](const auto& info) { on_sync_info(info); },
        [this](const auto& telemetry) { on_client_telemetry(telemetry); });
    if (started) return Attempt::started;

    client_.stop();
    if (client_.last_error() == ClientError::Incompatible) {
        set_error(ErrorCode::ServerIncompatible, MessageId::ServerIncompatible);
        record_.set_status(
            {StatusLevel::Error, StatusCategory::Compatibility, MessageId::ServerIncompatible});
        return Attempt::hopeless;
    }
    return Attempt::failed;
}

bool EngineRuntime::start_asio(const AudioDeviceSettings& audio) {
    // The driver's format is known from the player's first report.
    return start_player(&AsioPlayer::start, audio, {}, MessageId::AsioStartFailed);
}

bool EngineRuntime::start_loopback_asio(const AudioDeviceSettings& audio) {
    return start_player(&AsioPlayer::start_loopback, audio, {audio.sample_rate, audio.block_size},
                        MessageId::LoopbackStartFailed);
}

bool EngineRuntime::start_audio(const EngineConfig& config) {
    return config.loopback_device ? start_loopback_asio(config.audio) : start_asio(config.audio);
}

bool EngineRuntime::start_player(StartPlayer start_once, const AudioDeviceSettings& audio,
                                 StreamFormat device, MessageId failure) {
    const bool started = (player_.*start_once)(
        audio, discard_log,
        [this](auto rate, auto frames, auto channels, const auto& samples) {
            on_captured_input(rate, frames, channels, samples);
        },
        [this](const auto& telemetry) { on_player_telemetry(telemetry); });
    if (!started) {
        set_error(ErrorCode::AudioDeviceFailed, failure);
        return false;
    }
    active_format_ = StreamFormat{audio.sample_rate, audio.block_size};
    record_.set_device_format(device.sample_rate, device.block_frames);
    audio_accepting_ = true;
    return true;
}

void EngineRuntime::stop_audio() noexcept {
    audio_accepting_ = false;
    player_.stop();
}

bool EngineRuntime::set_capture_format(const AudioDeviceSettings& audio) {
    return client_.set_capture_format(audio.sample_rate,
                                      static_cast<std::uint16_t>(audio.block_size));
}

}  // namespace tavistro
