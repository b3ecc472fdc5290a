// The reference server: mixes for any number of clients over one UDP socket, and can play a bad
// network and a bad server for them.
//
//     ReferenceServer server({.port = 0, .melodies = {{.channel = 0}}});
//     if (const std::string error = server.start(); !error.empty()) ...
//     ... clients come to server.port() ...
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

/// start() and stop() belong to one controlling thread; everything else may be called from any
/// thread at any time and only locks briefly.
class ReferenceServer {
  public:
    explicit ReferenceServer(ServerOptions options)
        : options_(std::move(options)), faults_(options_.faults) {}
    ReferenceServer(const ReferenceServer&) = delete;
    ReferenceServer& operator=(const ReferenceServer&) = delete;
    ~ReferenceServer() { stop(); }

    /// Opens files and the socket, starts the threads. Returns empty when the server runs, else
    /// the reason for people. After stop() a server can be started again: it keeps its port and
    /// its faults, and its sequence numbers go on above the old ones.
    [[nodiscard]] std::string start();
    /// Ends the threads and completes the recordings; what was counted stays readable. Idempotent.
    void stop();

    /// Where clients reach the server; 0 before the first start.
    std::uint16_t port() const noexcept { return port_.load(); }
    ServerSnapshot snapshot() const;

    /// The stream goes on in another format from the next block on. False, with nothing changed,
    /// for a format out of range, or another rate while a file plays or records.
    bool change_format(std::uint32_t sample_rate, std::uint16_t frames);
    /// Replaces every fault; random choices go on where they were.
    void set_faults(const FaultOptions& faults);

    /// Keeps the last `blocks` blocks of the bus from now on; 0 ends it.
    void enable_history(std::size_t blocks) { history_.enable(blocks); }
    /// What is kept of one channel (below bus_channel_count), the oldest block first.
    std::vector<HistoryBlock> bus_history(std::size_t channel) const {
        return history_.channel(channel);
    }

  private:
    /// Throws std::runtime_error, its text for people.
    void open_socket();
    void begin_session(SourceList sources);
    void run_receive();
    void run_clock();
    bool send_due_block();
    void wait_for_work();
    /// Calls pass_on with each copy that need not wait, and queues the others.
    template <typename PassOn>
    Passage meet_faults(FaultLane& lane, const RoutedDatagram& datagram, const PassOn& pass_on);
    /// Passes the outbox on and counts what becomes of its blocks.
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

    // The clock thread's own.
    std::vector<RoutedDatagram> outbox_;
    std::vector<const RoutedDatagram*> departing_;  ///< of the outbox, what faults let pass
    std::vector<platform::DatagramBytes> run_;

    mutable std::mutex mutex_;  ///< guards everything below
    std::optional<MixingSession> session_;
    TrafficCounters traffic_;
    // Lanes of their own, so that blocks meet the same faults whatever clients ask and send.
    FaultLane block_lane_{0};
    FaultLane reply_lane_{0};
    FaultLane uplink_lane_{0};
    FaultOptions faults_;
    std::uint64_t started_ms_ = 0;
    std::uint64_t stopped_ms_ = 0;  ///< 0 while running
};

}  // namespace tavistro::server
