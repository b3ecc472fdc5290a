// The one call that takes a datagram from the system, apart from the socket so that a test can link
// a system that reports errors in its place.
#pragma once

#include <winsock2.h>

#include <cstdint>
#include <span>

namespace tavistro::platform {

/// Waits for one. The bytes received, or SOCKET_ERROR with the reason in WSAGetLastError().
int receive_datagram(SOCKET socket, std::span<std::uint8_t> buffer, sockaddr_in& source) noexcept;

}  // namespace tavistro::platform
