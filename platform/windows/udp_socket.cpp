#include "platform/udp_socket.h"

#include "platform/windows/datagram_receive.h"
#include "platform/windows/system_socket.h"

// Shutting a socket down does not end a receive on every system, and closing it meanwhile would
// leave the receiver with a handle that the system may give away again. A receive therefore waits
// for an event of close() beside its datagram. Sends do not block in the system; they wait for room
// here, where they can be told to give up.

namespace tavistro::platform {

bool start_network_stack() noexcept {
    WSADATA about{};
    return WSAStartup(MAKEWORD(2, 2), &about) == 0;
}

void stop_network_stack() noexcept {
    WSACleanup();
}

bool UdpSocket::prepare() noexcept {
    arrived_ = WSACreateEvent();
    closing_ = WSACreateEvent();
    // Otherwise another program could take the port over.
    const int exclusive = 1;
    setsockopt(system_socket(handle_), SOL_SOCKET, SO_EXCLUSIVEADDRUSE,
               reinterpret_cast<const char*>(&exclusive), sizeof exclusive);
    u_long never_block = 1;
    return arrived_ != WSA_INVALID_EVENT && closing_ != WSA_INVALID_EVENT &&
           ioctlsocket(system_socket(handle_), static_cast<long>(FIONBIO), &never_block) == 0;
}

void UdpSocket::receive_in_runs() noexcept {}

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
    const int size = receive_datagram(system_socket(handle_), buffer, source, {arrived_, closing_},
                                      timeout_ms == 0 ? WSA_INFINITE : timeout_ms);
    if (!is_open()) return {ReceiveStatus::closed};
    if (size < 0) {
        return {WSAGetLastError() == WSAETIMEDOUT ? ReceiveStatus::timed_out
                                                  : ReceiveStatus::failed};
    }
    return {ReceiveStatus::datagram, static_cast<std::size_t>(size), from_system(source)};
}

void UdpSocket::end_waits() noexcept {
    WSASetEvent(closing_);
}

void UdpSocket::release_events() noexcept {
    for (void** event : {&arrived_, &closing_}) {
        if (*event != nullptr) WSACloseEvent(*event);
        *event = nullptr;
    }
}

}  // namespace tavistro::platform
