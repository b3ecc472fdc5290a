#include "platform/windows/datagram_receive.h"

#include <array>

namespace tavistro::platform {

int receive_datagram(SOCKET socket, std::span<std::uint8_t> buffer, sockaddr_in& source,
                     const ReceiveEvents& events, DWORD timeout_ms) noexcept {
    WSABUF part{static_cast<ULONG>(buffer.size()), reinterpret_cast<char*>(buffer.data())};
    WSAOVERLAPPED under_way{};
    under_way.hEvent = events.arrived;
    DWORD size = 0;
    DWORD flags = 0;
    int source_size = sizeof source;
    if (WSARecvFrom(socket, &part, 1, &size, &flags, reinterpret_cast<sockaddr*>(&source),
                    &source_size, &under_way, nullptr) == 0) {
        return static_cast<int>(size);
    }
    if (WSAGetLastError() != WSA_IO_PENDING) return SOCKET_ERROR;

    const std::array<HANDLE, 2> events_to_wait_for{events.arrived, events.closing};
    const DWORD woken_by = WaitForMultipleObjects(static_cast<DWORD>(events_to_wait_for.size()),
                                                  events_to_wait_for.data(), FALSE, timeout_ms);
    if (woken_by != WAIT_OBJECT_0) CancelIoEx(reinterpret_cast<HANDLE>(socket), &under_way);
    // Also after a cancel the system may still write to what this function owns, until it says how
    // the receive ended; a datagram that came meanwhile counts.
    if (WSAGetOverlappedResult(socket, &under_way, &size, TRUE, &flags)) {
        return static_cast<int>(size);
    }
    if (woken_by == WAIT_TIMEOUT) WSASetLastError(WSAETIMEDOUT);
    if (woken_by == WAIT_OBJECT_0 + 1) WSASetLastError(WSAEINTR);
    return SOCKET_ERROR;
}

}  // namespace tavistro::platform
