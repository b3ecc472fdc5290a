// An IPv4 UDP socket whose blocking receive can be ended by another thread.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tavistro::platform {

/// Largest UDP payload over IPv4.
inline constexpr std::size_t max_datagram_bytes = 65507;

struct Ipv4Endpoint {
    std::uint32_t address = 0;  ///< host byte order: 127.0.0.1 is 0x7F000001
    std::uint16_t port = 0;     ///< host byte order
    friend bool operator==(const Ipv4Endpoint&, const Ipv4Endpoint&) = default;
};

inline constexpr std::uint32_t ipv4_loopback = 0x7F000001;
inline constexpr std::uint32_t ipv4_broadcast = 0xFFFFFFFF;

/// Dotted decimal text of four numbers; nothing for anything else (names are not resolved).
std::optional<std::uint32_t> parse_ipv4(std::string_view text);
std::string format_ipv4(std::uint32_t address);

/// Starts and stops the system's network stack; calls are counted by the system. Always succeeds
/// on systems without such a start.
bool start_network_stack() noexcept;
void stop_network_stack() noexcept;

struct SocketOptions {
    std::uint32_t recv_buffer_bytes = 0;  ///< requested size; the system may give less; 0 = default
    std::uint32_t send_buffer_bytes = 0;
    Ipv4Endpoint bind;  ///< zeros: every interface, a port of the system's choice
};

/// The content of one datagram.
using DatagramBytes = std::span<const std::uint8_t>;

enum class ReceiveStatus {
    datagram,   ///< `size` bytes from `source`, possibly 0 bytes
    timed_out,  ///< the receive timeout ran out
    failed,     ///< an error of the system, for instance a port-unreachable report
    closed,     ///< close() was called
};

struct ReceiveResult {
    ReceiveStatus status;
    std::size_t size = 0;
    Ipv4Endpoint source{};
    /// Bytes of each datagram: more than one lie in the buffer, one behind the other, when this is
    /// less than `size`; the last one may be shorter. Only after receive_in_runs().
    std::size_t datagram_size = size;
};

/// How much of several datagrams the system accepted.
struct SentDatagrams {
    std::size_t count = 0;
    std::size_t bytes = 0;
};

/// Calls `handle` with each datagram that `received` brought into `buffer`, in order.
template <typename Handle>
void for_each_datagram(const ReceiveResult& received, DatagramBytes buffer, const Handle& handle) {
    DatagramBytes rest = buffer.first(received.size);
    do {
        handle(rest.first(std::min(received.datagram_size, rest.size())));
        rest = rest.subspan(std::min(received.datagram_size, rest.size()));
    } while (!rest.empty());
}

/// The socket. open() and release() belong to one controlling thread. In between, one thread at
/// a time may receive, and any number of threads may call the rest.
///
/// Ending: close() refuses further sends and ends a waiting send or receive, whatever the network
/// does, but keeps the descriptor, so that no thread still inside a call can meet a descriptor
/// number that the system has given away again. release() frees it once every thread that used the
/// socket has been joined. To send a final datagram before close(), call wind_down() first.
class UdpSocket {
  public:
    UdpSocket() noexcept = default;
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;
    ~UdpSocket() { release(); }

    /// Creates and binds. Buffer sizes that the system refuses are ignored. The descriptor is not
    /// inherited by child processes. False when the socket cannot be created or bound.
    bool open(const SocketOptions& options) noexcept;
    /// Address and port that the socket is bound to; zeros when not open.
    Ipv4Endpoint local_endpoint() const noexcept;

    /// 0 waits without limit.
    bool set_receive_timeout(std::uint32_t ms) noexcept;
    bool enable_broadcast() noexcept;
    /// From now on one receive can return several datagrams of one sender, on systems that support
    /// that; elsewhere nothing changes.
    void receive_in_runs() noexcept;

    /// True only when the whole datagram was taken. Waits while the send buffer has no room for it.
    /// False without a call for an empty one, or when the socket is closed.
    bool send_to(DatagramBytes datagram, const Ipv4Endpoint& to) noexcept;
    /// The same for several, none of them empty, in order. A run of equal sizes, of which only the
    /// last may be shorter, is one call where the system can do that; on the network they are
    /// datagrams like any other.
    SentDatagrams send_run(std::span<const DatagramBytes> datagrams,
                           const Ipv4Endpoint& to) noexcept;
    /// Waits for a datagram, or a run of them. Interruptions by signals are resumed. One thread at
    /// a time.
    ReceiveResult receive(std::span<std::uint8_t> buffer) noexcept;

    /// From now on no send waits for room, and a send of several that is under way ends before its
    /// next call. One that waits gives up within 20 ms.
    void wind_down() noexcept { winding_down_.store(true, std::memory_order_release); }
    /// Ends every receive and every waiting send, now and later. Idempotent.
    void close() noexcept;
    /// close(), then frees the descriptor. No other thread may be inside the socket. Idempotent.
    void release() noexcept;
    bool is_open() const noexcept { return open_.load(std::memory_order_acquire); }

  private:
    /// Waits briefly for room to send; false after wind_down() or close().
    bool wait_for_room() noexcept;

    // The system's own (linux/, windows/).
    /// Prepares a new socket before it is bound. False when the system refuses.
    bool prepare() noexcept;
    /// Ends every wait for the socket, now and later.
    void end_waits() noexcept;
    /// Idempotent.
    void release_events() noexcept;

    std::atomic<bool> open_{false};
    std::atomic<bool> winding_down_{false};
    std::atomic<bool> sends_runs_{true};  ///< until the system says that it cannot
    std::atomic<std::uint32_t> receive_timeout_ms_{0};
    std::intptr_t handle_ = -1;
    // Events that a receive waits for, on systems that have them.
    [[maybe_unused]] void* arrived_ = nullptr;
    [[maybe_unused]] void* closing_ = nullptr;
};

}  // namespace tavistro::platform
