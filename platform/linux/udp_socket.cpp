#include "platform/udp_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <limits>

#include "platform/clock.h"
#include "platform/linux/datagram_run.h"

namespace tavistro::platform {
namespace {

int descriptor(std::intptr_t handle) noexcept {
    return static_cast<int>(handle);
}

sockaddr_in to_system(const Ipv4Endpoint& endpoint) noexcept {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(endpoint.port);
    address.sin_addr.s_addr = htonl(endpoint.address);
    return address;
}

Ipv4Endpoint from_system(const sockaddr_in& address) noexcept {
    return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
}

void request_buffer(int socket, int option, std::uint32_t bytes) noexcept {
    if (bytes == 0) return;
    constexpr std::uint32_t most = std::numeric_limits<int>::max();
    const int size = static_cast<int>(bytes < most ? bytes : most);
    setsockopt(socket, SOL_SOCKET, option, &size, sizeof size);
}

/// How long a send that waits for room goes without looking whether it still should.
constexpr int room_slice_ms = 20;

bool no_room(int error) noexcept {
    return error == EAGAIN || error == EWOULDBLOCK;
}

/// Some interfaces cannot send runs, nor any for datagrams above their MTU. Everything else, a lost
/// route for instance, passes.
bool runs_do_not_work(int error) noexcept {
    return error == EINVAL || error == EMSGSIZE || error == EIO || error == EOPNOTSUPP;
}

/// Kernels that do not know runs would send one as one datagram.
bool knows_runs(int socket) noexcept {
    const int off = 0;
    return setsockopt(socket, SOL_UDP, UDP_SEGMENT, &off, sizeof off) == 0;
}

/// Time left of a receive timeout.
int poll_timeout(std::uint32_t timeout_ms, std::int64_t started) noexcept {
    const std::int64_t elapsed_ms = (performance_counter() - started) / 1'000'000;
    const std::int64_t left = static_cast<std::int64_t>(timeout_ms) - elapsed_ms;
    return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

std::optional<std::uint32_t> parse_ipv4(std::string_view text) {
    in_addr address{};
    const std::string terminated(text);
    if (terminated.size() != std::char_traits<char>::length(terminated.c_str())) return {};
    if (inet_pton(AF_INET, terminated.c_str(), &address) != 1) return {};
    return ntohl(address.s_addr);
}

std::string format_ipv4(std::uint32_t address) {
    const in_addr system{.s_addr = htonl(address)};
    std::array<char, INET_ADDRSTRLEN> text{};
    return inet_ntop(AF_INET, &system, text.data(), text.size());
}

bool start_network_stack() noexcept {
    return true;
}
void stop_network_stack() noexcept {}

bool UdpSocket::open(const SocketOptions& options) noexcept {
    release();
    handle_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (handle_ < 0) return false;
    request_buffer(descriptor(handle_), SO_RCVBUF, options.recv_buffer_bytes);
    request_buffer(descriptor(handle_), SO_SNDBUF, options.send_buffer_bytes);
    // close() wakes a blocked receive; should a system not do so, the receive looks up by itself.
    constexpr timeval look_up{.tv_sec = 0, .tv_usec = 500'000};
    setsockopt(descriptor(handle_), SOL_SOCKET, SO_RCVTIMEO, &look_up, sizeof look_up);
    const sockaddr_in address = to_system(options.bind);
    if (::bind(descriptor(handle_), reinterpret_cast<const sockaddr*>(&address), sizeof address)) {
        release();
        return false;
    }
    receive_timeout_ms_ = 0;
    winding_down_ = false;
    sends_runs_ = knows_runs(descriptor(handle_));
    open_.store(true, std::memory_order_release);
    return true;
}

Ipv4Endpoint UdpSocket::local_endpoint() const noexcept {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (!is_open() ||
        getsockname(descriptor(handle_), reinterpret_cast<sockaddr*>(&address), &size)) {
        return {};
    }
    return from_system(address);
}

bool UdpSocket::set_receive_timeout(std::uint32_t ms) noexcept {
    if (!is_open()) return false;
    receive_timeout_ms_ = ms;
    return true;
}

bool UdpSocket::enable_broadcast() noexcept {
    const int on = 1;
    return is_open() &&
           setsockopt(descriptor(handle_), SOL_SOCKET, SO_BROADCAST, &on, sizeof on) == 0;
}

void UdpSocket::receive_in_runs() noexcept {
    const int on = 1;
    if (is_open()) setsockopt(descriptor(handle_), SOL_UDP, UDP_GRO, &on, sizeof on);
}

// The send itself never blocks: a wait inside it could be ended by shutting the socket down only,
// after which there is no last word.
bool UdpSocket::wait_for_room() noexcept {
    if (winding_down_.load(std::memory_order_acquire) || !is_open()) return false;
    pollfd wait{descriptor(handle_), POLLOUT, 0};
    ::poll(&wait, 1, room_slice_ms);
    return true;
}

bool UdpSocket::send_to(DatagramBytes datagram, const Ipv4Endpoint& to) noexcept {
    if (datagram.empty() || !is_open()) return false;
    const sockaddr_in address = to_system(to);
    ssize_t sent = 0;
    do {
        sent = ::sendto(descriptor(handle_), datagram.data(), datagram.size(),
                        MSG_NOSIGNAL | MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&address),
                        sizeof address);
    } while (sent < 0 && (errno == EINTR || (no_room(errno) && wait_for_room())));
    return sent == static_cast<ssize_t>(datagram.size());
}

SentDatagrams UdpSocket::send_run(std::span<const DatagramBytes> datagrams,
                                  const Ipv4Endpoint& to) noexcept {
    SentDatagrams sent;
    while (!datagrams.empty() && is_open()) {
        const auto run = datagrams.first(sends_runs_ ? run_length(datagrams) : 1);
        if (run.size() > 1) {
            ssize_t bytes = 0;
            do {
                bytes = send_as_one(descriptor(handle_), run, to_system(to));
            } while (bytes < 0 && no_room(errno) && wait_for_room());
            if (bytes >= 0) {
                sent.count += run.size();
                sent.bytes += static_cast<std::size_t>(bytes);
            } else if (runs_do_not_work(errno)) {
                sends_runs_ = false;
                continue;
            }
        } else if (send_to(run.front(), to)) {
            sent.count += 1;
            sent.bytes += run.front().size();
        }
        if (winding_down_.load(std::memory_order_acquire)) break;
        datagrams = datagrams.subspan(run.size());
    }
    return sent;
}

// Without a timeout one blocking call per datagram or run: waiting for the socket first would
// double the calls of the thread that handles every fragment.
ReceiveResult UdpSocket::receive(std::span<std::uint8_t> buffer) noexcept {
    const std::uint32_t timeout_ms = receive_timeout_ms_;
    const std::int64_t started = timeout_ms != 0 ? performance_counter() : 0;
    RunReceive receive_now(buffer);
    while (is_open()) {
        if (timeout_ms != 0) {
            pollfd wait{descriptor(handle_), POLLIN, 0};
            const int ready = ::poll(&wait, 1, poll_timeout(timeout_ms, started));
            if (ready == 0) return {ReceiveStatus::timed_out};
            if (ready < 0 && errno != EINTR) return {ReceiveStatus::failed};
        }
        const ssize_t size = receive_now(descriptor(handle_), timeout_ms != 0 ? MSG_DONTWAIT : 0);
        if (size >= 0 && is_open()) {
            const auto received = static_cast<std::size_t>(size);
            return {ReceiveStatus::datagram, received, from_system(receive_now.source()),
                    receive_now.datagram_size(received)};
        }
        if (size < 0 && errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK)
            return {ReceiveStatus::failed};
    }
    return {ReceiveStatus::closed};
}

void UdpSocket::close() noexcept {
    if (!open_.exchange(false, std::memory_order_acq_rel)) return;
    // Refused for a socket without a peer, and yet it ends every wait, now and later.
    ::shutdown(descriptor(handle_), SHUT_RDWR);
}

void UdpSocket::release() noexcept {
    close();
    if (handle_ >= 0) ::close(descriptor(handle_));
    handle_ = -1;
}

}  // namespace tavistro::platform
