// The one call that takes a datagram from the system, apart from the socket so that a test can link
// a system that reports errors in its place.
#pragma once

#include <winsock2.h>

#include <cstdint>
#include <span>

namespace tavistro::platform {

/// What a receive waits for, besides its time.
struct ReceiveEvents {
    WSAEVENT arrived;  ///< the receive's own, reset by hand
    WSAEVENT closing;  ///< set when the socket closes
};

/// Waits for one datagram, at most `timeout_ms` (WSA_INFINITE: without limit). The bytes received,
/// or SOCKET_ERROR with the reason in WSAGetLastError(): WSAETIMEDOUT when the time is over,
/// WSAEINTR when the socket closes. One thread at a time.
int receive_datagram(SOCKET socket, std::span<std::uint8_t> buffer, sockaddr_in& source,
                     const ReceiveEvents& events, DWORD timeout_ms) noexcept;

}  // namespace tavistro::platform
