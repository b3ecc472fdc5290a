#include "platform/udp_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <limits>

#include "platform/clock.h"

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

// Time left of a receive timeout, in the form that poll takes: -1 waits without limit.
int poll_timeout(std::uint32_t timeout_ms, std::int64_t started) noexcept {
    if (timeout_ms == 0) return -1;
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
    wake_ = eventfd(0, EFD_CLOEXEC);
    if (handle_ < 0 || wake_ < 0) {
        release();
        return false;
    }
    request_buffer(descriptor(handle_), SO_RCVBUF, options.recv_buffer_bytes);
    request_buffer(descriptor(handle_), SO_SNDBUF, options.send_buffer_bytes);
    const sockaddr_in address = to_system(options.bind);
    if (::bind(descriptor(handle_), reinterpret_cast<const sockaddr*>(&address), sizeof address)) {
        release();
        return false;
    }
    receive_timeout_ms_ = 0;
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

// Audio that cannot leave at once is late: a full send buffer refuses the datagram instead of
// holding the sending thread.
bool UdpSocket::send_to(std::span<const std::uint8_t> datagram, const Ipv4Endpoint& to) noexcept {
    if (datagram.empty() || !is_open()) return false;
    const sockaddr_in address = to_system(to);
    ssize_t sent = 0;
    do {
        sent = ::sendto(descriptor(handle_), datagram.data(), datagram.size(),
                        MSG_NOSIGNAL | MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&address),
                        sizeof address);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(datagram.size());
}

ReceiveResult UdpSocket::receive(std::span<std::uint8_t> buffer) noexcept {
    const std::uint32_t timeout_ms = receive_timeout_ms_;
    const std::int64_t started = performance_counter();
    bool timeout_over = false;
    while (is_open()) {
        sockaddr_in source{};
        socklen_t source_size = sizeof source;
        const ssize_t size =
            ::recvfrom(descriptor(handle_), buffer.data(), buffer.size(), MSG_DONTWAIT,
                       reinterpret_cast<sockaddr*>(&source), &source_size);
        if (size >= 0) {
            return {ReceiveStatus::datagram, static_cast<std::size_t>(size), from_system(source)};
        }
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) return {ReceiveStatus::failed};
        if (timeout_over) return {ReceiveStatus::timed_out};
        // Shutting an unconnected socket down does not end every wait: wait on the event as well.
        std::array<pollfd, 2> waits{
            {{descriptor(handle_), POLLIN, 0}, {descriptor(wake_), POLLIN, 0}}};
        const int ready = ::poll(waits.data(), waits.size(), poll_timeout(timeout_ms, started));
        if (ready < 0 && errno != EINTR) return {ReceiveStatus::failed};
        timeout_over = ready == 0;
    }
    return {ReceiveStatus::closed};
}

void UdpSocket::close() noexcept {
    if (!open_.exchange(false, std::memory_order_acq_rel)) return;
    eventfd_write(descriptor(wake_), 1);
}

void UdpSocket::release() noexcept {
    close();
    if (handle_ >= 0) ::close(descriptor(handle_));
    if (wake_ >= 0) ::close(descriptor(wake_));
    handle_ = wake_ = -1;
}

}  // namespace tavistro::platform
