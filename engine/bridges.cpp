// All exchange between client and player. Every function here runs on one of their threads.
#include "engine/engine_runtime.h"
#include "platform/clock.h"

namespace tavistro {

void EngineRuntime::on_output_block(const TavistroProtocol::CompletedOutputBlock& block) {
    if (!audio_accepting_) return;
    player_.push_block(block.sequence, block.sample_rate, block.frames, block.channels,
                       block.samples, block.server_time_local_ns, block.arrival_time_ns,
                       block.delivery_time_ns);
}

void EngineRuntime::on_sync_info(const TavistroProtocol::SyncInfo& info) {
    const bool complete = info.sample_rate != 0 && info.block_frames != 0;
    if (complete) {
        last_sync_ms_ = platform::millisecond_tick();
        if (first_sync_.put_if_empty(info)) worker_event_.signal();
    }
    if (!audio_accepting_) return;

    if (complete && active_format_.load() != StreamFormat{info.sample_rate, info.block_frames}) {
        audio_accepting_ = false;
        format_change_.put(info);
        return;
    }
    player_.on_sync(info);
}

void EngineRuntime::on_client_telemetry(const TavistroClient::Telemetry& telemetry) {
    stats_.write_client_telemetry(telemetry);
}

void EngineRuntime::on_captured_input(std::uint32_t sample_rate, std::uint16_t frames,
                                      std::uint16_t channels, const std::vector<float>& samples) {
    client_.push_captured_input(sample_rate, frames, channels, samples, player_.capture_ratio());
}

void EngineRuntime::on_player_telemetry(const AsioPlayer::Telemetry& telemetry) {
    stats_.write_player_telemetry(telemetry);
    record_.update_meters(telemetry);
    supervise_player_telemetry(telemetry);
}

}  // namespace tavistro
