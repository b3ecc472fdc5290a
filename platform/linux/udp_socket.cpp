#include "platform/udp_socket.h"

#include <netinet/udp.h>
#include <sys/time.h>

#include "platform/clock.h"
#include "platform/linux/datagram_run.h"
#include "platform/linux/system_socket.h"

namespace tavistro::platform {
namespace {

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

bool start_network_stack() noexcept {
    return true;
}
void stop_network_stack() noexcept {}

bool UdpSocket::prepare() noexcept {
    // close() wakes a blocked receive; should a system not do so, the receive looks up by itself.
    constexpr timeval look_up{.tv_sec = 0, .tv_usec = 500'000};
    setsockopt(system_socket(handle_), SOL_SOCKET, SO_RCVTIMEO, &look_up, sizeof look_up);
    sends_runs_ = knows_runs(system_socket(handle_));
    return true;
}

void UdpSocket::receive_in_runs() noexcept {
    const int on = 1;
    if (is_open()) setsockopt(system_socket(handle_), SOL_UDP, UDP_GRO, &on, sizeof on);
}

SentDatagrams UdpSocket::send_run(std::span<const DatagramBytes> datagrams,
                                  const Ipv4Endpoint& to) noexcept {
    SentDatagrams sent;
    while (!datagrams.empty() && is_open()) {
        const auto run = datagrams.first(sends_runs_ ? run_length(datagrams) : 1);
        if (run.size() > 1) {
            ssize_t bytes = 0;
            do {
                bytes = send_as_one(system_socket(handle_), run, to_system(to));
            } while (bytes < 0 && lacked_room() && wait_for_room());
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
            pollfd wait{system_socket(handle_), POLLIN, 0};
            const int ready = ::poll(&wait, 1, poll_timeout(timeout_ms, started));
            if (ready == 0) return {ReceiveStatus::timed_out};
            if (ready < 0 && errno != EINTR) return {ReceiveStatus::failed};
        }
        const ssize_t size =
            receive_now(system_socket(handle_), timeout_ms != 0 ? MSG_DONTWAIT : 0);
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

void UdpSocket::end_waits() noexcept {
    // Refused for a socket without a peer, and yet it ends every wait, now and later.
    ::shutdown(system_socket(handle_), SHUT_RDWR);
}

void UdpSocket::release_events() noexcept {}

}  // namespace tavistro::platform
