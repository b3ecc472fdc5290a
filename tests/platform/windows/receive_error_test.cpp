// What the system reports after a datagram to a closed port. This program's own receive_datagram
// takes the place of the library's, and reports what the test wants before it asks the system.
#include <gtest/gtest.h>

#include <array>
#include <deque>

#include "platform/udp_socket.h"
#include "platform/windows/datagram_receive.h"

namespace tavistro::platform {
namespace {

std::deque<int> errors_to_report;

}  // namespace

int receive_datagram(SOCKET socket, std::span<std::uint8_t> buffer, sockaddr_in& source,
                     const ReceiveEvents&, DWORD) noexcept {
    if (!errors_to_report.empty()) {
        WSASetLastError(errors_to_report.front());
        errors_to_report.pop_front();
        return SOCKET_ERROR;
    }
    int size = sizeof source;
    return ::recvfrom(socket, reinterpret_cast<char*>(buffer.data()),
                      static_cast<int>(buffer.size()), 0, reinterpret_cast<sockaddr*>(&source),
                      &size);
}

namespace {

TEST(UdpSocket, AnUnreachablePortCostsOneFailedReceiveAndNoDatagram) {
    UdpSocket socket;
    ASSERT_TRUE(socket.open({.bind = {.address = ipv4_loopback, .port = 0}}));
    ASSERT_TRUE(socket.set_receive_timeout(10'000));
    const std::array<std::uint8_t, 2> sent{7, 8};
    ASSERT_TRUE(socket.send_to(sent, socket.local_endpoint()));
    errors_to_report = {WSAECONNRESET, WSAENETRESET, WSAETIMEDOUT};
    std::array<std::uint8_t, 16> buffer{};
    EXPECT_EQ(socket.receive(buffer).status, ReceiveStatus::failed);
    EXPECT_EQ(socket.receive(buffer).status, ReceiveStatus::failed);
    EXPECT_EQ(socket.receive(buffer).status, ReceiveStatus::timed_out);
    EXPECT_EQ(socket.receive(buffer).status, ReceiveStatus::datagram);
    EXPECT_EQ(buffer[1], 8);
}

}  // namespace
}  // namespace tavistro::platform
