// The network side of the engine: two threads and a socket around one session.
//
// start() finds the server and registers with it; from then on the receive thread hands out block
// notices and audio blocks in order, and sends back captured input, until stop().
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

/// start, stop, set_capture_format and destruction belong to one controlling thread, which must
/// not be one of the client's own: callbacks never start or stop the client.
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

    /// Finds and checks the server (waiting up to settings.discovery_timeout_ms), starts the
    /// threads and registers. True when running, also when it was already: the callbacks given then
    /// are dropped and nothing changes. False with last_error() set, everything undone, also when
    /// memory ran out: the error is that of the step which found none.
    ///
    /// Any callback may be empty; none is called with a lock held.
    /// - log: the controlling thread and both threads of the client.
    /// - block: the receive thread; complete blocks and the silence for missing ones, in rising
    ///   sequence order. The record is valid during the call.
    /// - sync: the receive thread; once per accepted notice.
    /// - telemetry: both threads of the client, possibly at once.
    bool start(const TavistroProtocol::ClientSettings& settings, Log log, BlockCallback block,
               SyncCallback sync, TelemetryCallback telemetry);

    /// Leaves the server, ends the threads (waiting for a callback under way, at most one slice of
    /// 50 ms otherwise) and forgets the telemetry callback. Safe at any time and more than once.
    void stop();

    /// Why the last start failed; None after a success. Any thread.
    ClientError last_error() const noexcept { return last_error_.load(std::memory_order_acquire); }

    /// Says in which blocks captured input will be pushed and sent (Hz, frames per block), and
    /// begins the stream anew: the next notice and the next block are accepted whatever their
    /// sequence. Input held so far is forgotten. Allocates. False when either is 0 or memory does
    /// not suffice.
    bool set_capture_format(std::uint32_t sample_rate, std::uint16_t frames);

    /// Adds one planar block of captured input (channel c, frame f at c * frames + f), one channel
    /// per entry of driver_inputs. `rate_ratio` is device frames per server frame; values outside
    /// 0.95..1.05 are not used. A block that does not fit the capture format is dropped. Any
    /// thread, also inside a block or sync callback; takes the client's mutex, allocates nothing.
    void push_captured_input(std::uint32_t sample_rate, std::uint16_t frames,
                             std::uint16_t channels, const std::vector<float>& samples,
                             double rate_ratio);

  private:
    /// Opens the socket and finds the server. On failure last_error_ is set and nothing is held.
    std::optional<platform::Ipv4Endpoint> connect();
    bool start_threads();
    void disconnect();
    void receive_loop();
    void periodic_loop();

    std::atomic<ClientError> last_error_{ClientError::None};
    bool network_started_ = false;
    platform::UdpSocket socket_;
    ClientSession session_;
    std::vector<std::uint8_t> receive_buffer_;  ///< the receive thread's
    platform::Thread receive_thread_;
    platform::Thread periodic_thread_;
};

}  // namespace tavistro
