// The client of a simulated world: parts of the real engine, connected as in the engine.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "audio/asio_player.h"
#include "bench/diagnosis_lab/computer.h"
#include "bench/diagnosis_lab/counts.h"
#include "bench/diagnosis_lab/device.h"
#include "bench/diagnosis_lab/scenario.h"
#include "engine/player_supervision.h"
#include "engine/stats_block.h"
#include "net/client_session.h"
#include "net/server_messages.h"

namespace tavistro::diagnosis_lab {

class Client {
  public:
    using SendPing = std::function<void(const TavistroProtocol::Ping&)>;

    /// A running engine that has received nothing yet. `computer` gives the run times of the
    /// periods.
    Client(const Scenario& scenario, Computer& computer, std::int64_t device_start_ns,
           std::uint32_t first_sequence, SendPing send_ping);
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client();

    // Called as on the engine's receive thread.
    void take_notice(const TavistroProtocol::SyncInfo& sync);
    void take_block(std::uint64_t index);
    void take_pong(const TavistroProtocol::Pong& pong);

    void ping_tick() { session_.ping_tick(); }
    Device& device() noexcept { return device_; }

    /// Records that the server never sent this block.
    void note_unsent(std::uint64_t index);

    /// The current counts, without silence_ms.
    Counts counts() const;
    /// Complete only if a report followed the last event.
    const EngineCounts& engine_counts() const noexcept { return engine_; }

  private:
    void start(const Scenario& scenario);
    void on_block(const TavistroProtocol::CompletedOutputBlock& block);
    void on_sync(const TavistroProtocol::SyncInfo& sync);
    void on_client_telemetry(const ClientTelemetry& telemetry);
    void on_player_telemetry(const PlayerTelemetry& telemetry);
    bool sync_is_stale() const;

    Computer& computer_;
    Dice dice_;
    AudioDeviceSettings audio_;
    std::uint32_t first_sequence_;
    std::uint32_t playing_rate_;
    Device device_;
    StatsBlock stats_;
    PlayerSupervision supervision_;
    AsioPlayer player_;
    ClientSession session_;

    std::vector<float> samples_;
    TavistroProtocol::DatagramList datagrams_;
    std::vector<bool> arrived_;  ///< by block index
    std::uint64_t unsent_from_ = 0;
    std::uint64_t unsent_until_ = 0;
    std::uint64_t last_sync_ms_ = 0;
    bool taking_block_ = false;
    bool clock_known_ = false;
    Counts counts_;
    EngineCounts engine_;
};

}  // namespace tavistro::diagnosis_lab
