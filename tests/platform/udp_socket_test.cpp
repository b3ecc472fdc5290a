#include "platform/udp_socket.h"

#include <gtest/gtest.h>

#include <array>
#include <thread>

namespace tavistro::platform {
namespace {

using Buffer = std::array<std::uint8_t, 64>;
constexpr std::array<std::uint8_t, 3> hello{1, 2, 3};

SocketOptions on_loopback() {
    return {.bind = {.address = ipv4_loopback, .port = 0}};
}

TEST(UdpSocket, ConvertsDottedAddressesOnly) {
    EXPECT_EQ(parse_ipv4("192.168.1.20"), 0xC0A80114u);
    EXPECT_EQ(format_ipv4(0xC0A80114u), "192.168.1.20");
    for (const char* text :
         {"", "localhost", "1.2.3", "1.2.3.4 ", " 1.2.3.4", "256.1.1.1", "::1"}) {
        EXPECT_FALSE(parse_ipv4(text)) << text;
    }
    EXPECT_FALSE(parse_ipv4(std::string_view("1.2.3.4\0x", 9)));
}

TEST(UdpSocket, CarriesDatagramsIncludingEmptyTimeoutsAndBusyPort) {
    UdpSocket a;
    UdpSocket b;
    ASSERT_TRUE(a.open(on_loopback()));
    ASSERT_TRUE(b.open(on_loopback()));
    Buffer buffer{};
    ASSERT_TRUE(b.send_to(hello, a.local_endpoint()));
    const ReceiveResult got = a.receive(buffer);
    EXPECT_EQ(got.status, ReceiveStatus::datagram);
    EXPECT_EQ(got.size, hello.size());
    EXPECT_EQ(got.source, b.local_endpoint());
    EXPECT_FALSE(b.send_to({}, a.local_endpoint()));

    ASSERT_TRUE(a.set_receive_timeout(5));
    EXPECT_EQ(a.receive(buffer).status, ReceiveStatus::timed_out);

    UdpSocket c;
    EXPECT_FALSE(c.open({.bind = a.local_endpoint()}));
    EXPECT_FALSE(c.is_open());
}

TEST(UdpSocket, CloseWakesEveryReceiverAndRefusesEverySend) {
    UdpSocket socket;
    ASSERT_TRUE(socket.open(on_loopback()));
    const Ipv4Endpoint self = socket.local_endpoint();
    const auto receive = [&] {
        Buffer buffer{};
        EXPECT_EQ(socket.receive(buffer).status, ReceiveStatus::closed);
    };
    std::thread first(receive);
    std::thread second(receive);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    socket.close();
    first.join();
    second.join();
    receive();
    EXPECT_FALSE(socket.send_to(hello, self));
}

}  // namespace
}  // namespace tavistro::platform
