// A client's session with its server: datagrams in, datagrams and callbacks out. TavistroClient
// adds the threads and the socket; tests use the session without them.
//
// Downlink: handle_datagram -> decode -> Reassembly -> DeliveryTracker -> block callback.
// Uplink: push_captured_input -> CaptureRing -> (an accepted Sync pulls) -> encode -> send.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "config/settings.h"
#include "net/capture_ring.h"
#include "net/client_statistics.h"
#include "net/client_telemetry.h"
#include "net/delivery.h"
#include "net/protocol.h"
#include "net/reassembly.h"
#include "net/server_clock.h"
#include "platform/udp_socket.h"

namespace tavistro {

/// Callbacks of the session. Any may be empty. None is called with a lock held.
struct ClientCallbacks {
    std::function<void(const std::string&)> log;
    std::function<void(const TavistroProtocol::CompletedOutputBlock&)> block;
    std::function<void(const TavistroProtocol::SyncInfo&)> sync;
    std::function<void(const ClientTelemetry&)> telemetry;
};

/// Life cycle: reset, run, end, release, then reset again, all on one controlling thread. No other
/// thread may be inside the session during reset and release, except in push_captured_input. While
/// the session runs, one receive thread calls handle_datagram; any thread may call the rest.
class ClientSession {
  public:
    /// Sends non-empty datagrams to the server, in order. Returns true if all were sent. Called on
    /// the threads that call the session, without a lock held.
    using Send = std::function<bool(std::span<const platform::DatagramBytes>,
                                    const platform::Ipv4Endpoint&)>;

    explicit ClientSession(Send send) : send_(std::move(send)) {}

    /// Prepares a new session without a server: sets settings, callbacks and a new session id, and
    /// discards all other state.
    void reset(const TavistroProtocol::ClientSettings& settings, ClientCallbacks callbacks);
    /// Starts to accept datagrams from `server`.
    void run(const platform::Ipv4Endpoint& server);
    /// Stops sending and receiving, waits for sends in progress on other threads, and sends the
    /// leave message as the last datagram. Retries for 100 ms if the send buffer is full.
    /// Returns false and does nothing if the session was not running.
    bool end();
    /// Frees the stream's buffers and drops the telemetry callback.
    void release();

    bool running() const noexcept { return running_.load(std::memory_order_acquire); }
    const TavistroProtocol::ClientSettings& settings() const noexcept { return settings_; }
    /// Controlling thread and threads that call the session, not during reset.
    void log(const char* line) const noexcept;

    /// Registers with the server; must be repeated. Logs a failure to send.
    void send_announce();
    /// Sends a ping if one is due; drops an outstanding ping that has timed out.
    void ping_tick();
    /// Handles any datagram from `source`. Calls callbacks and sends before it returns. Allocates
    /// nothing in the steady state.
    void handle_datagram(std::span<const std::uint8_t> datagram,
                         const platform::Ipv4Endpoint& source);

    /// See TavistroClient.
    bool set_capture_format(std::uint32_t sample_rate, std::uint16_t frames);
    void push_captured_input(std::uint32_t sample_rate, std::uint16_t frames,
                             std::uint16_t channels, std::span<const float> samples,
                             double rate_ratio);

  private:
    enum class SyncVerdict { dropped, accepted, accepted_with_input };

    void handle_audio(std::span<const std::uint8_t> datagram);
    void handle_sync(std::span<const std::uint8_t> datagram);
    void handle_pong(std::span<const std::uint8_t> datagram);
    /// Delivers silence for the missing blocks, then completed_.
    void deliver_completed();
    void deliver_silence(const DeliveryTracker::Verdict& gap);
    void send_captured_block(const TavistroProtocol::SyncInfo& sync);
    /// Returns false without sending if the session has ended.
    bool send(std::span<const platform::DatagramBytes> datagrams) const;
    bool send_one(platform::DatagramBytes datagram) const { return send({&datagram, 1}); }
    void leave() const;
    void report(const ClientTelemetry& telemetry) const;
    void log_interval(const ClientTelemetry& telemetry);

    // Called with the mutex held:
    SyncVerdict judge_sync(const TavistroProtocol::SyncInfo& sync);
    ClientTelemetry snapshot() const { return statistics_.snapshot(server_clock_.clock_synced()); }

    const Send send_;
    // Changed only by the controlling thread, while no other thread reads them.
    TavistroProtocol::ClientSettings settings_;
    ClientCallbacks callbacks_;
    std::uint32_t session_id_ = 0;
    platform::Ipv4Endpoint server_;
    std::atomic<bool> running_{false};
    mutable std::atomic<std::uint32_t> sends_under_way_{0};

    std::mutex mutex_;  ///< guards the members below, up to those of the receive thread
    std::optional<std::uint32_t> last_sync_sequence_;
    std::optional<std::uint32_t> last_uplink_sequence_;
    Reassembly reassembly_;
    DeliveryTracker delivery_;
    CaptureRing capture_ring_;
    ServerClock server_clock_;
    ClientStatistics statistics_;

    // Used only by the receive thread; kept to reuse their storage.
    TavistroProtocol::CompletedOutputBlock completed_;
    TavistroProtocol::CompletedOutputBlock silence_;
    std::vector<float> uplink_samples_;
    TavistroProtocol::DatagramList uplink_datagrams_;
    std::vector<platform::DatagramBytes> uplink_run_;  ///< views of uplink_datagrams_, for Send
    std::string interval_line_;
};

}  // namespace tavistro
