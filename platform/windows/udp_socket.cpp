#include "platform/udp_socket.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <array>
#include <limits>

#include "platform/windows/datagram_receive.h"

// Shutting a socket down does not end a receive on every system, and closing it meanwhile would
// leave the receiver with a handle that the system may give away again. close() therefore sends the
// socket an empty datagram from itself; the receiver that it wakes finds the socket closed.

namespace tavistro::platform {
namespace {

SOCKET socket_of(std::intptr_t handle) noexcept {
    return static_cast<SOCKET>(handle);
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

bool set_option(std::intptr_t socket, int option, int value) noexcept {
    return setsockopt(socket_of(socket), SOL_SOCKET, option, reinterpret_cast<const char*>(&value),
                      sizeof value) == 0;
}

void request_buffer(std::intptr_t socket, int option, std::uint32_t bytes) noexcept {
    if (bytes == 0) return;
    constexpr std::uint32_t most = std::numeric_limits<int>::max();
    set_option(socket, option, static_cast<int>(bytes < most ? bytes : most));
}

bool bind_to(std::intptr_t socket, const Ipv4Endpoint& endpoint) noexcept {
    const sockaddr_in address = to_system(endpoint);
    return ::bind(socket_of(socket), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
           0;
}

Ipv4Endpoint endpoint_of(std::intptr_t socket) noexcept {
    sockaddr_in address{};
    int size = sizeof address;
    const bool known =
        getsockname(socket_of(socket), reinterpret_cast<sockaddr*>(&address), &size) == 0;
    return known ? from_system(address) : Ipv4Endpoint{};
}

int send(std::intptr_t socket, std::span<const std::uint8_t> datagram,
         const Ipv4Endpoint& to) noexcept {
    const sockaddr_in address = to_system(to);
    return ::sendto(socket_of(socket), reinterpret_cast<const char*>(datagram.data()),
                    static_cast<int>(datagram.size()), 0,
                    reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

void wake_receiver(std::intptr_t socket) noexcept {
    Ipv4Endpoint self = endpoint_of(socket);
    if (self.address == 0) self.address = ipv4_loopback;  // bound to every interface
    send(socket, {}, self);
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
    in_addr system{};
    system.s_addr = htonl(address);
    std::array<char, INET_ADDRSTRLEN> text{};
    return inet_ntop(AF_INET, &system, text.data(), text.size());
}

bool start_network_stack() noexcept {
    WSADATA about{};
    return WSAStartup(MAKEWORD(2, 2), &about) == 0;
}

void stop_network_stack() noexcept {
    WSACleanup();
}

bool UdpSocket::open(const SocketOptions& options) noexcept {
    release();
    handle_ =
        static_cast<std::intptr_t>(WSASocketW(AF_INET, SOCK_DGRAM, IPPROTO_UDP, nullptr, 0,
                                              WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT));
    if (handle_ == -1) return false;
    request_buffer(handle_, SO_RCVBUF, options.recv_buffer_bytes);
    request_buffer(handle_, SO_SNDBUF, options.send_buffer_bytes);
    // Otherwise another program could take the port over.
    set_option(handle_, SO_EXCLUSIVEADDRUSE, 1);
    if (!bind_to(handle_, options.bind)) {
        release();
        return false;
    }
    open_.store(true, std::memory_order_release);
    return true;
}

Ipv4Endpoint UdpSocket::local_endpoint() const noexcept {
    return is_open() ? endpoint_of(handle_) : Ipv4Endpoint{};
}

bool UdpSocket::set_receive_timeout(std::uint32_t ms) noexcept {
    return is_open() && set_option(handle_, SO_RCVTIMEO, static_cast<int>(ms));
}

bool UdpSocket::enable_broadcast() noexcept {
    return is_open() && set_option(handle_, SO_BROADCAST, 1);
}

void UdpSocket::receive_in_runs() noexcept {}

bool UdpSocket::send_to(DatagramBytes datagram, const Ipv4Endpoint& to) noexcept {
    if (datagram.empty() || datagram.size() > max_datagram_bytes || !is_open()) return false;
    return send(handle_, datagram, to) == static_cast<int>(datagram.size());
}

SentDatagrams UdpSocket::send_run(std::span<const DatagramBytes> datagrams,
                                  const Ipv4Endpoint& to) noexcept {
    SentDatagrams sent;
    for (const DatagramBytes& datagram : datagrams) {
        if (!send_to(datagram, to)) continue;
        sent.count += 1;
        sent.bytes += datagram.size();
    }
    return sent;
}

// The reports of unreachable ports stay switched on: they are receive errors like any other.
ReceiveResult UdpSocket::receive(std::span<std::uint8_t> buffer) noexcept {
    sockaddr_in source{};
    const int size = is_open() ? receive_datagram(socket_of(handle_), buffer, source) : 0;
    const int error = size < 0 ? WSAGetLastError() : 0;
    if (!is_open()) {
        wake_receiver(handle_);  // the next one, should there be another
        return {ReceiveStatus::closed};
    }
    if (error == WSAETIMEDOUT) return {ReceiveStatus::timed_out};
    if (error != 0) return {ReceiveStatus::failed};
    return {ReceiveStatus::datagram, static_cast<std::size_t>(size), from_system(source)};
}

void UdpSocket::close() noexcept {
    if (!open_.exchange(false, std::memory_order_acq_rel)) return;
    wake_receiver(handle_);
}

void UdpSocket::release() noexcept {
    close();
    if (handle_ != -1) closesocket(socket_of(handle_));
    handle_ = -1;
}

}  // namespace tavistro::platform
