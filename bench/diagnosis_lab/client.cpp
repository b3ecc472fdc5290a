#include "bench/diagnosis_lab/client.h"

#include <stdexcept>
#include <utility>

#include "bench/diagnosis_lab/virtual_system.h"
#include "config/engine_config.h"
#include "platform/clock.h"
#include "tavistro/engine.h"

namespace tavistro::diagnosis_lab {

using TavistroProtocol::CompletedOutputBlock;

namespace {

constexpr std::uint32_t client_id = 1;
constexpr platform::Ipv4Endpoint server_endpoint{platform::ipv4_loopback, 28010};
constexpr std::uint64_t sync_silence_limit_ms = 3000;  // same as in the engine
constexpr double least_work_ns = 3'000;                // receive thread, per block
constexpr double most_work_ns = 15'000;

EngineConfig config_for(const Scenario& scenario) {
    EngineConfig config;
    config.client.client_id = client_id;
    config.client.client_latency_blocks = scenario.latency_blocks;
    config.client.udp_payload_bytes = TavistroProtocol::max_udp_payload_bytes;
    config.client.driver_inputs = {0};
    config.client.driver_outputs = {0};
    config.audio = scenario.card;
    config.audio.input_channel_map.assign(1, 0);
    config.audio.output_channel_map.assign(1, 0);
    config.audio.sample_rate = scenario.format.sample_rate;
    config.audio.block_size = scenario.format.frames;
    apply_latency_derivation(config);
    return config;
}

std::uint32_t card_rate(const Scenario& scenario) {
    return scenario.card_rate != 0 ? scenario.card_rate : scenario.format.sample_rate;
}

}  // namespace

Client::Client(const Scenario& scenario, Computer& computer, std::int64_t device_start_ns,
               std::uint32_t first_sequence, SendPing send_ping)
    : computer_(computer),
      dice_(scenario.seed, 40),
      audio_(config_for(scenario).audio),
      first_sequence_(first_sequence),
      playing_rate_(scenario.card_admits_rate ? card_rate(scenario) : audio_.sample_rate),
      device_(audio_, card_rate(scenario), scenario.card_admits_rate, device_start_ns, computer,
              scenario.seed),
      player_([this] { return device_.make_card(); }),
      session_([send = std::move(send_ping)](std::span<const platform::DatagramBytes> datagrams,
                                             const platform::Ipv4Endpoint&) {
          // The simulated server ignores the client's audio.
          for (const auto& datagram : datagrams) {
              if (const auto ping = TavistroProtocol::decode_ping(datagram)) send(ping.message);
          }
          return true;
      }),
      samples_(scenario.format.frames, 0.25F) {
    start(scenario);
}

void Client::start(const Scenario& scenario) {
    const EngineConfig config = config_for(scenario);
    bool started = stats_.open(client_id);
    stats_.write_error(ErrorCode::None);
    session_.reset(
        config.client,
        {.log = {},
         .block = [this](const auto& block) { on_block(block); },
         .sync = [this](const auto& sync) { on_sync(sync); },
         .telemetry = [this](const auto& telemetry) { on_client_telemetry(telemetry); }});
    session_.run(server_endpoint);
    started = session_.set_capture_format(audio_.sample_rate, scenario.format.frames) && started;
    stats_.write_stream_format(audio_.sample_rate, audio_.block_size);
    started = player_.start(
                  audio_, {},
                  [this](auto rate, auto frames, auto channels, const auto& samples) {
                      session_.push_captured_input(rate, frames, channels, samples,
                                                   player_.capture_ratio());
                  },
                  [this](const auto& telemetry) { on_player_telemetry(telemetry); }) &&
              started;
    stats_.write_state(EngineState::Running);
    if (!started) throw std::runtime_error("the engine of a world did not start");
}

Client::~Client() {
    session_.end();
    player_.stop();
    session_.release();
    stats_.close();
}

void Client::note_unsent(std::uint64_t index) {
    if (unsent_until_ == 0) unsent_from_ = index;
    unsent_until_ = index + 1;
}

void Client::take_notice(const TavistroProtocol::SyncInfo& sync) {
    session_.handle_datagram(TavistroProtocol::encode_sync(client_id, sync), server_endpoint);
}

void Client::take_block(std::uint64_t index) {
    TavistroProtocol::encode_audio_block(
        {.client_id = client_id,
         .sequence = first_sequence_ + static_cast<std::uint32_t>(index),
         .sample_rate = audio_.sample_rate,
         .frames = static_cast<std::uint16_t>(audio_.block_size),
         .channels = 1,
         .samples = samples_},
        TavistroProtocol::max_udp_payload_bytes, datagrams_);
    const std::int64_t received_before = counts_.received;
    taking_block_ = true;
    for (const auto& datagram : datagrams_)
        session_.handle_datagram(datagram, server_endpoint);
    taking_block_ = false;
    if (arrived_.size() <= index) arrived_.resize(2 * index + 1024);
    if (counts_.received == received_before)
        ++(arrived_[index] ? counts_.came_again : counts_.late);
    arrived_[index] = true;
}

void Client::take_pong(const TavistroProtocol::Pong& pong) {
    session_.handle_datagram(TavistroProtocol::encode_pong(pong), server_endpoint);
}

void Client::on_block(const CompletedOutputBlock& block) {
    const bool stands_in = block.arrival_time_ns == 0;
    ++(stands_in ? counts_.replaced : counts_.received);
    if (!clock_known_) ++counts_.untimed_blocks;
    const std::uint32_t index = block.sequence - first_sequence_;
    if (stands_in && index >= unsent_from_ && index < unsent_until_) ++counts_.in_silence;
    if (block.sample_rate != playing_rate_) ++counts_.refused;
    player_.push_block(block.sequence, block.sample_rate, block.frames, block.channels,
                       block.samples, block.server_time_local_ns, block.arrival_time_ns,
                       block.delivery_time_ns);
    if (stands_in) return;
    const auto work = static_cast<std::int64_t>(dice_.between(least_work_ns, most_work_ns));
    set_time_ns(computer_.done_at(Thread::receive, time_ns(), work));
}

void Client::on_sync(const TavistroProtocol::SyncInfo& sync) {
    ++counts_.notices;
    if (!clock_known_) ++counts_.untimed_notices;
    last_sync_ms_ = platform::millisecond_tick();
    player_.on_sync(sync);
}

void Client::on_client_telemetry(const ClientTelemetry& telemetry) {
    stats_.write_client_telemetry(telemetry);
    clock_known_ = telemetry.clock_synced;
    engine_.notices = static_cast<std::int64_t>(telemetry.sync_delay_samples);
    if (!taking_block_) return;
    // This report completes one second of blocks.
    engine_.received += static_cast<std::int64_t>(telemetry.recvBlocksPerSec);
    engine_.repeated += static_cast<std::int64_t>(telemetry.duplicateBlocksPerSec);
}

void Client::on_player_telemetry(const PlayerTelemetry& telemetry) {
    stats_.write_player_telemetry(telemetry);
    if (supervision_.evaluate(telemetry, sync_is_stale()).recovery_reason)
        ++engine_.recoveries_wanted;
    engine_.queued += static_cast<std::int64_t>(telemetry.recvBlocksPerSec);
    engine_.dropped = static_cast<std::int64_t>(telemetry.playbackDropped);
    engine_.overruns = static_cast<std::int64_t>(telemetry.overruns);
    engine_.underruns = static_cast<std::int64_t>(telemetry.underruns);
    engine_.periods = static_cast<std::int64_t>(telemetry.callbacks_total);
}

bool Client::sync_is_stale() const {
    return last_sync_ms_ != 0 &&
           platform::millisecond_tick() - last_sync_ms_ > sync_silence_limit_ms;
}

Counts Client::counts() const {
    Counts counts = counts_;
    counts.overruns = engine_.overruns;
    counts.periods = device_.counts().run;
    counts.periods_missed = device_.counts().missed;
    counts.periods_doubled = device_.counts().doubled;
    counts.underruns = device_.counts().underruns;
    return counts;
}

}  // namespace tavistro::diagnosis_lab
