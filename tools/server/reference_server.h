// The reference server: mixes for any number of clients over one UDP socket. It can simulate
// network and server faults.
//
//     ReferenceServer server({.port = 0, .melodies = {{.channel = 0}}});
//     if (const std::string error = server.start(); !error.empty()) ...
//     ... clients connect to server.port() ...
//     server.stop();
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/threads.h"
#include "platform/udp_socket.h"
#include "tools/server/bus_history.h"
#include "tools/server/bus_observer.h"
#include "tools/server/delay_queue.h"
#include "tools/server/fault_lane.h"
#include "tools/server/mixing_session.h"
#include "tools/server/server_options.h"
#include "tools/server/server_snapshot.h"

namespace tavistro::server {

/// One controlling thread calls start() and stop(). Any thread may call everything else at any
/// time; these calls lock briefly.
class ReferenceServer {
  public:
    explicit ReferenceServer(ServerOptions options)
        : options_(std::move(options)), faults_(options_.faults) {}
    ReferenceServer(const ReferenceServer&) = delete;
    ReferenceServer& operator=(const ReferenceServer&) = delete;
    ~ReferenceServer() { stop(); }

    /// Opens the files and the socket and starts the threads. Returns an empty text on success,
    /// else an error message for the user. A server can start again after stop(): it keeps its port
    /// and its faults, and its sequence numbers continue above the old ones.
    [[nodiscard]] std::string start();
    /// Ends the threads and completes the recordings. The counters stay readable. Idempotent.
    void stop();

    /// The server's UDP port; 0 before the first start.
    std::uint16_t port() const noexcept { return port_.load(); }
    ServerSnapshot snapshot() const;

    /// Changes the stream format, starting with the next block. Returns false and changes nothing
    /// when the format is out of range, or when the sample rate would change while a file plays or
    /// records.
    bool change_format(std::uint32_t sample_rate, std::uint16_t frames);
    /// Replaces all faults. The random generators keep their state.
    void set_faults(const FaultOptions& faults);

    /// Keeps the latest `blocks` blocks of the bus from now on; 0 disables the history.
    void enable_history(std::size_t blocks) { history_.enable(blocks); }
    /// The kept blocks of one channel (below bus_channel_count), oldest first.
    std::vector<HistoryBlock> bus_history(std::size_t channel) const {
        return history_.channel(channel);
    }

  private:
    /// Throws std::runtime_error with a message for the user.
    void open_socket();
    void begin_session(SourceList sources);
    void run_receive();
    void run_clock();
    bool send_due_block();
    void wait_for_work();
    /// Applies the faults: calls pass_on for each copy without delay and queues the delayed copies.
    template <typename PassOn>
    Passage meet_faults(FaultLane& lane, const RoutedDatagram& datagram, const PassOn& pass_on);
    /// Sends the outbox through the faults and counts dropped and reordered blocks.
    void send_outbox();
    void send_departing();
    void send(std::span<const platform::DatagramBytes> datagrams,
              const platform::Ipv4Endpoint& client);
    void release_delayed();
    void pass_on(const RoutedDatagram& datagram);
    void handle(const RoutedDatagram& datagram);

    ServerOptions options_;
    platform::UdpSocket socket_;
    platform::Thread receive_thread_;
    platform::Thread clock_thread_;
    std::atomic<std::uint16_t> port_{0};
    std::atomic<bool> running_{false};
    bool network_started_ = false;

    BusHistory history_;
    BusObserver observer_;
    DelayQueue delayed_;

    // Used by the clock thread alone.
    std::vector<RoutedDatagram> outbox_;
    std::vector<const RoutedDatagram*> departing_;  ///< datagrams of the outbox to send now
    std::vector<platform::DatagramBytes> run_;

    mutable std::mutex mutex_;  ///< guards everything below
    std::optional<MixingSession> session_;
    TrafficCounters traffic_;
    // Separate lanes, so that the faults of the blocks do not depend on what the clients send.
    FaultLane block_lane_{0};
    FaultLane reply_lane_{0};
    FaultLane uplink_lane_{0};
    FaultOptions faults_;
    std::uint64_t started_ms_ = 0;
    std::uint64_t stopped_ms_ = 0;  ///< 0 while running
};

}  // namespace tavistro::server
