// The system's sockets as platform/udp_socket.cpp uses them: what differs, under names that every
// system's header has.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>

#include "platform/socket_address.h"

namespace tavistro::platform {

inline SOCKET system_socket(std::intptr_t handle) noexcept {
    return static_cast<SOCKET>(handle);
}

/// -1 when there is none to be had. Child processes do not inherit it.
inline std::intptr_t new_system_socket() noexcept {
    constexpr DWORD flags = WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT;
    return static_cast<std::intptr_t>(
        WSASocketW(AF_INET, SOCK_DGRAM, IPPROTO_UDP, nullptr, 0, flags));
}
inline void close_system_socket(std::intptr_t handle) noexcept {
    closesocket(system_socket(handle));
}

/// Without waiting. The bytes taken, or a negative number with the reason in the system's own place
/// for the thread's last error.
inline std::ptrdiff_t send_now(std::intptr_t handle, DatagramBytes datagram,
                               const sockaddr_in& to) noexcept {
    return ::sendto(system_socket(handle), reinterpret_cast<const char*>(datagram.data()),
                    static_cast<int>(datagram.size()), 0, reinterpret_cast<const sockaddr*>(&to),
                    sizeof to);
}
/// Why the send before failed.
inline bool lacked_room() noexcept {
    return WSAGetLastError() == WSAEWOULDBLOCK;
}
inline void wait_until_writable(std::intptr_t handle, int most_ms) noexcept {
    fd_set waiting{};
    waiting.fd_count = 1;
    waiting.fd_array[0] = system_socket(handle);
    timeval slice{.tv_sec = 0, .tv_usec = 1000 * most_ms};
    select(0, nullptr, &waiting, nullptr, &slice);
}

}  // namespace tavistro::platform
