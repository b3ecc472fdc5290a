// One attempt to start each part, and the callbacks that it gets.
#include "engine/engine_runtime.h"

namespace tavistro {
namespace {

/// The record carries no text, so there is nowhere for log lines to go.
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
        set_error(TAVISTRO_ERROR_SERVER_INCOMPATIBLE, TAVISTRO_MESSAGE_SERVER_INCOMPATIBLE);
        record_.set_status({TAVISTRO_LEVEL_ERROR, TAVISTRO_CATEGORY_COMPATIBILITY,
                            TAVISTRO_MESSAGE_SERVER_INCOMPATIBLE});
        return Attempt::hopeless;
    }
    return Attempt::failed;
}

bool EngineRuntime::start_audio(const EngineConfig& config) {
    const AudioDeviceSettings& audio = config.audio;
    const bool loopback = config.loopback_device;
    const auto start = loopback ? &AsioPlayer::start_loopback : &AsioPlayer::start;
    const bool started = (player_.*start)(
        audio, discard_log,
        [this](auto rate, auto frames, auto channels, const auto& samples) {
            on_captured_input(rate, frames, channels, samples);
        },
        [this](const auto& telemetry) { on_player_telemetry(telemetry); });
    if (!started) {
        set_error(TAVISTRO_ERROR_AUDIO_DEVICE_FAILED, loopback
                                                          ? TAVISTRO_MESSAGE_LOOPBACK_START_FAILED
                                                          : TAVISTRO_MESSAGE_ASIO_START_FAILED);
        return false;
    }
    const StreamFormat stream{audio.sample_rate, audio.block_size};
    // A driver's own format shows with its first report.
    const StreamFormat device = loopback ? stream : StreamFormat{};
    active_format_ = stream;
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
