// One client's session with its server, without threads and sockets: datagrams in, datagrams out,
// callbacks out. TavistroClient puts the threads and the socket around it; tests drive it alone.
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

/// What the session tells its user. Any of them may be empty. None is called with a lock held.
struct ClientCallbacks {
    std::function<void(const std::string&)> log;
    std::function<void(const TavistroProtocol::CompletedOutputBlock&)> block;
    std::function<void(const TavistroProtocol::SyncInfo&)> sync;
    std::function<void(const ClientTelemetry&)> telemetry;
};

/// Life: reset, run, end, release, and so on again; all of these on one controlling thread, reset
/// and release only while no other thread is inside the session (push_captured_input excepted).
/// While it runs, one receive thread calls handle_datagram and any thread the rest.
class ClientSession {
  public:
    /// Sends datagrams, none of them empty, in order to the server; true when it took all of them.
    /// Called by any thread that calls the session, with no lock held.
    using Send = std::function<bool(std::span<const platform::DatagramBytes>,
                                    const platform::Ipv4Endpoint&)>;

    explicit ClientSession(Send send) : send_(std::move(send)) {}

    /// Begins a new session that has met no server yet: new settings, callbacks and session id,
    /// everything else forgotten.
    void reset(const TavistroProtocol::ClientSettings& settings, ClientCallbacks callbacks);
    /// From now on datagrams of `server` count.
    void run(const platform::Ipv4Endpoint& server);
    /// Stops sending and handling, waits for sends that other threads are inside, and leaves the
    /// server: nothing follows the leave message. A send buffer without room for it gets 100 ms.
    /// False when the session was not running; nothing happens then.
    bool end();
    /// Gives up what the session holds of the stream, its storage and the telemetry callback.
    void release();

    bool running() const noexcept { return running_.load(std::memory_order_acquire); }
    const TavistroProtocol::ClientSettings& settings() const noexcept { return settings_; }
    /// Controlling thread and the session's own callers, while no reset is under way.
    void log(const char* line) const noexcept;

    /// Registers with the server, again and again; logs when the datagram could not be sent.
    void send_announce();
    /// Sends a ping when one is due, and gives up on one that was not answered.
    void ping_tick();
    /// Takes whatever came from `source`. Calls back and sends before it returns. In the steady
    /// state it allocates nothing.
    void handle_datagram(std::span<const std::uint8_t> datagram,
                         const platform::Ipv4Endpoint& source);

    /// As the operations of TavistroClient.
    bool set_capture_format(std::uint32_t sample_rate, std::uint16_t frames);
    void push_captured_input(std::uint32_t sample_rate, std::uint16_t frames,
                             std::uint16_t channels, std::span<const float> samples,
                             double rate_ratio);

  private:
    enum class SyncVerdict { dropped, accepted, accepted_with_input };

    void handle_audio(std::span<const std::uint8_t> datagram);
    void handle_sync(std::span<const std::uint8_t> datagram);
    void handle_pong(std::span<const std::uint8_t> datagram);
    /// Hands out completed_, after silence for what is missing before it.
    void deliver_completed();
    void deliver_silence(const DeliveryTracker::Verdict& gap);
    void send_captured_block(const TavistroProtocol::SyncInfo& sync);
    /// Sends unless the session has ended.
    bool send(std::span<const platform::DatagramBytes> datagrams) const;
    bool send_one(platform::DatagramBytes datagram) const { return send({&datagram, 1}); }
    void leave() const;
    void report(const ClientTelemetry& telemetry) const;
    void log_interval(const ClientTelemetry& telemetry);

    // With the mutex held:
    SyncVerdict judge_sync(const TavistroProtocol::SyncInfo& sync);
    ClientTelemetry snapshot() const { return statistics_.snapshot(server_clock_.clock_synced()); }

    const Send send_;
    // Changed by the controlling thread alone, while no other thread reads them.
    TavistroProtocol::ClientSettings settings_;
    ClientCallbacks callbacks_;
    std::uint32_t session_id_ = 0;
    platform::Ipv4Endpoint server_;
    std::atomic<bool> running_{false};
    mutable std::atomic<std::uint32_t> sends_under_way_{0};

    std::mutex mutex_;  ///< guards what follows, up to the receive thread's own
    std::optional<std::uint32_t> last_sync_sequence_;
    std::optional<std::uint32_t> last_uplink_sequence_;
    Reassembly reassembly_;
    DeliveryTracker delivery_;
    CaptureRing capture_ring_;
    ServerClock server_clock_;
    ClientStatistics statistics_;

    // The receive thread's own; kept for their storage.
    TavistroProtocol::CompletedOutputBlock completed_;
    TavistroProtocol::CompletedOutputBlock silence_;
    std::vector<float> uplink_samples_;
    TavistroProtocol::DatagramList uplink_datagrams_;
    std::vector<platform::DatagramBytes> uplink_run_;  ///< the same, to be sent
    std::string interval_line_;
};

}  // namespace tavistro
