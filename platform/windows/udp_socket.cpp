#include "platform/udp_socket.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <array>
#include <limits>

#include "platform/windows/datagram_receive.h"

// Shutting a socket down does not end a receive on every system, and closing it meanwhile would
// leave the receiver with a handle that the system may give away again. A receive therefore waits
// for an event of close() beside its datagram. Sends do not block in the system; they wait for room
// here, where they can be told to give up.

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

/// How long a send that waits for room goes without looking whether it still should.
constexpr timeval room_slice{.tv_sec = 0, .tv_usec = 20'000};

bool never_block(std::intptr_t socket) noexcept {
    u_long on = 1;
    return ioctlsocket(socket_of(socket), static_cast<long>(FIONBIO), &on) == 0;
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
    arrived_ = WSACreateEvent();
    closing_ = WSACreateEvent();
    request_buffer(handle_, SO_RCVBUF, options.recv_buffer_bytes);
    request_buffer(handle_, SO_SNDBUF, options.send_buffer_bytes);
    // Otherwise another program could take the port over.
    set_option(handle_, SO_EXCLUSIVEADDRUSE, 1);
    if (arrived_ == WSA_INVALID_EVENT || closing_ == WSA_INVALID_EVENT || !never_block(handle_) ||
        !bind_to(handle_, options.bind)) {
        release();
        return false;
    }
    receive_timeout_ms_ = 0;
    winding_down_ = false;
    open_.store(true, std::memory_order_release);
    return true;
}

Ipv4Endpoint UdpSocket::local_endpoint() const noexcept {
    return is_open() ? endpoint_of(handle_) : Ipv4Endpoint{};
}

bool UdpSocket::set_receive_timeout(std::uint32_t ms) noexcept {
    if (!is_open()) return false;
    receive_timeout_ms_ = ms;
    return true;
}

bool UdpSocket::enable_broadcast() noexcept {
    return is_open() && set_option(handle_, SO_BROADCAST, 1);
}

void UdpSocket::receive_in_runs() noexcept {}

bool UdpSocket::wait_for_room() noexcept {
    if (winding_down_.load(std::memory_order_acquire) || !is_open()) return false;
    fd_set waiting{};
    waiting.fd_count = 1;
    waiting.fd_array[0] = socket_of(handle_);
    timeval slice = room_slice;
    select(0, nullptr, &waiting, nullptr, &slice);
    return true;
}

bool UdpSocket::send_to(DatagramBytes datagram, const Ipv4Endpoint& to) noexcept {
    if (datagram.empty() || datagram.size() > max_datagram_bytes || !is_open()) return false;
    int sent = 0;
    do {
        sent = send(handle_, datagram, to);
    } while (sent < 0 && WSAGetLastError() == WSAEWOULDBLOCK && wait_for_room());
    return sent == static_cast<int>(datagram.size());
}

SentDatagrams UdpSocket::send_run(std::span<const DatagramBytes> datagrams,
                                  const Ipv4Endpoint& to) noexcept {
    SentDatagrams sent;
    for (const DatagramBytes& datagram : datagrams) {
        if (send_to(datagram, to)) {
            sent.count += 1;
            sent.bytes += datagram.size();
        }
        if (winding_down_.load(std::memory_order_acquire)) break;
    }
    return sent;
}

// The reports of unreachable ports stay switched on: they are receive errors like any other.
ReceiveResult UdpSocket::receive(std::span<std::uint8_t> buffer) noexcept {
    if (!is_open()) return {ReceiveStatus::closed};
    const std::uint32_t timeout_ms = receive_timeout_ms_;
    sockaddr_in source{};
    const int size = receive_datagram(socket_of(handle_), buffer, source, {arrived_, closing_},
                                      timeout_ms == 0 ? WSA_INFINITE : timeout_ms);
    if (!is_open()) return {ReceiveStatus::closed};
    if (size < 0) {
        return {WSAGetLastError() == WSAETIMEDOUT ? ReceiveStatus::timed_out
                                                  : ReceiveStatus::failed};
    }
    return {ReceiveStatus::datagram, static_cast<std::size_t>(size), from_system(source)};
}

void UdpSocket::close() noexcept {
    if (open_.exchange(false, std::memory_order_acq_rel)) WSASetEvent(closing_);
}

void UdpSocket::release() noexcept {
    close();
    if (handle_ != -1) closesocket(socket_of(handle_));
    handle_ = -1;
    for (void** event : {&arrived_, &closing_}) {
        if (*event != nullptr) WSACloseEvent(*event);
        *event = nullptr;
    }
}

}  // namespace tavistro::platform
