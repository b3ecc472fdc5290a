// The network side of the engine: a session with its socket and two threads.
//
// start() finds the server and registers with it. Until stop() the receive thread then delivers
// sync notices and audio blocks in order, and sends captured input to the server.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "config/settings.h"
#include "net/client_error.h"
#include "net/client_session.h"
#include "net/client_telemetry.h"
#include "net/protocol_records.h"
#include "platform/threads.h"
#include "platform/udp_socket.h"

namespace tavistro {

/// One controlling thread calls start, stop, set_capture_format and the destructor. It must not be
/// one of the client's own threads: callbacks never start or stop the client.
class TavistroClient {
  public:
    using Telemetry = ClientTelemetry;
    using Log = std::function<void(const std::string&)>;
    using BlockCallback = std::function<void(const TavistroProtocol::CompletedOutputBlock&)>;
    using SyncCallback = std::function<void(const TavistroProtocol::SyncInfo&)>;
    using TelemetryCallback = std::function<void(const Telemetry&)>;

    TavistroClient();
    TavistroClient(const TavistroClient&) = delete;
    TavistroClient& operator=(const TavistroClient&) = delete;
    ~TavistroClient() { stop(); }

    /// Finds and checks the server (waits up to settings.discovery_timeout_ms), starts the threads
    /// and registers. Returns true if the client runs. If it was already running, nothing changes
    /// and the given callbacks are dropped. On failure returns false, undoes everything and sets
    /// last_error(); if memory runs out, to the error of the step that needed it.
    ///
    /// Any callback may be empty; none is called with a lock held.
    /// - log: the controlling thread and both client threads.
    /// - block: the receive thread; complete blocks, and silence for missing ones, in ascending
    ///   sequence. The record is valid only during the call.
    /// - sync: the receive thread; once per accepted sync notice.
    /// - telemetry: both client threads, possibly concurrently.
    bool start(const TavistroProtocol::ClientSettings& settings, Log log, BlockCallback block,
               SyncCallback sync, TelemetryCallback telemetry);

    /// Leaves the server, ends the threads and drops the telemetry callback. Waits for a callback
    /// in progress, otherwise 50 ms at most. May be called at any time and repeatedly.
    void stop();

    /// Why the last start failed; None after a successful one. Any thread.
    ClientError last_error() const noexcept { return last_error_.load(std::memory_order_acquire); }

    /// Sets the format of captured input (Hz, frames per block) and restarts the stream: the next
    /// sync notice and the next block are accepted with any sequence, and buffered input is
    /// discarded. Allocates. Returns false if either value is 0 or memory runs out.
    bool set_capture_format(std::uint32_t sample_rate, std::uint16_t frames);

    /// Adds one planar block of captured input (channel c, frame f at c * frames + f), one channel
    /// per entry of driver_inputs. `rate_ratio` is device frames per server frame; values outside
    /// 0.95..1.05 are ignored. Drops a block that does not match the capture format. Any thread,
    /// also in a block or sync callback; locks the client's mutex, allocates nothing.
    void push_captured_input(std::uint32_t sample_rate, std::uint16_t frames,
                             std::uint16_t channels, const std::vector<float>& samples,
                             double rate_ratio);

  private:
    /// Opens the socket and finds the server. On failure sets last_error_ and closes the socket.
    std::optional<platform::Ipv4Endpoint> connect();
    bool start_threads();
    void disconnect();
    void receive_loop();
    void periodic_loop();

    std::atomic<ClientError> last_error_{ClientError::None};
    bool network_started_ = false;
    platform::UdpSocket socket_;
    ClientSession session_;
    std::vector<std::uint8_t> receive_buffer_;  ///< of the receive thread
    platform::Thread receive_thread_;
    platform::Thread periodic_thread_;
};

}  // namespace tavistro
