// The system's sockets as platform/udp_socket.cpp uses them: what differs, under names that every
// system's header has.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "platform/socket_address.h"

namespace tavistro::platform {

inline int system_socket(std::intptr_t handle) noexcept {
    return static_cast<int>(handle);
}

/// -1 when there is none to be had. Child processes do not inherit it.
inline std::intptr_t new_system_socket() noexcept {
    return ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
}
inline void close_system_socket(std::intptr_t handle) noexcept {
    ::close(system_socket(handle));
}

/// Without waiting. The bytes taken, or a negative number with the reason in the system's own place
/// for the thread's last error.
inline std::ptrdiff_t send_now(std::intptr_t handle, DatagramBytes datagram,
                               const sockaddr_in& to) noexcept {
    std::ptrdiff_t sent = 0;
    do {
        sent = ::sendto(system_socket(handle), datagram.data(), datagram.size(),
                        MSG_NOSIGNAL | MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&to),
                        sizeof to);
    } while (sent < 0 && errno == EINTR);
    return sent;
}
/// Why the send before failed.
inline bool lacked_room() noexcept {
    return errno == EAGAIN || errno == EWOULDBLOCK;
}
inline void wait_until_writable(std::intptr_t handle, int most_ms) noexcept {
    pollfd wait{system_socket(handle), POLLOUT, 0};
    ::poll(&wait, 1, most_ms);
}

}  // namespace tavistro::platform
