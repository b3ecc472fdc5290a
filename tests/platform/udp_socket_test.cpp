#include "platform/udp_socket.h"

#include <gtest/gtest.h>

#include <numeric>
#include <thread>

#include "platform/udp_rig.h"

namespace tavistro::platform {
namespace {

TEST(UdpSocket, ConvertsDottedAddressesOnly) {
    EXPECT_EQ(parse_ipv4("192.168.1.20"), 0xC0A80114u);
    EXPECT_EQ(format_ipv4(0xC0A80114u), "192.168.1.20");
    for (const char* text : {"", "localhost", "1.2.3", "1.2.3.4 ", " 1.2.3.4", "256.1.1.1", "::1"})
        EXPECT_FALSE(parse_ipv4(text)) << text;
    EXPECT_FALSE(parse_ipv4(std::string_view("1.2.3.4\0x", 9)));
}

TEST(UdpSocket, NamesTheSenderAndRefusesEmptyDatagramsAndTakenPorts) {
    UdpSocket a;
    UdpSocket b;
    ASSERT_TRUE(a.open(on_loopback()));
    ASSERT_TRUE(b.open(on_loopback()));
    Bytes buffer(64);
    ASSERT_TRUE(b.send_to(hello, a.local_endpoint()));
    EXPECT_EQ(a.receive(buffer).source, b.local_endpoint());
    EXPECT_FALSE(b.send_to({}, a.local_endpoint()));
    const Ipv4Endpoint everybody{0x7FFFFFFF, a.local_endpoint().port};
    EXPECT_FALSE(b.send_to(hello, everybody));
    ASSERT_TRUE(b.enable_broadcast());
    EXPECT_TRUE(b.send_to(hello, everybody));
    UdpSocket c;
    EXPECT_FALSE(c.open({.bind = a.local_endpoint()}));
    EXPECT_FALSE(c.is_open());
}

TEST(UdpSocket, ARunArrivesAsTheDatagramsThatWereSent) {
    const std::pair<const char*, std::vector<std::size_t>> cases[] = {
        {"a block whose last fragment is shorter", {1072, 1072, 1072, 400}},
        {"sizes that rise and fall", {44, 1072, 1072, 300, 300, 1072}},
        {"more than one piece may be cut into", std::vector<std::size_t>(150, 100)},
        {"more than one piece may hold", std::vector<std::size_t>(20, 9000)},
        {"the largest", {max_datagram_bytes, max_datagram_bytes}},
    };
    for (const auto& [what, sizes] : cases) {
        for (const bool in_runs : {false, true}) {
            SCOPED_TRACE(testing::Message() << what << (in_runs ? ", received in runs" : ""));
            UdpSocket from;
            UdpSocket to;
            ASSERT_TRUE(from.open(on_loopback()));
            ASSERT_TRUE(to.open(on_loopback()));
            if (in_runs) to.receive_in_runs();
            const std::vector<Bytes> sent = numbered(sizes);
            const SentDatagrams taken = send_run(from, sent, to.local_endpoint());
            EXPECT_EQ(taken.count, sizes.size());
            EXPECT_EQ(taken.bytes, std::accumulate(sizes.begin(), sizes.end(), std::size_t{0}));
            EXPECT_EQ(receive_all(to, sizes.size()).datagrams, sent);
        }
    }
}

// Compared: Wine 10 makes a small buffer larger.
TEST(UdpSocket, ASmallReceiveBufferTakesFewDatagrams) {
    const auto taken = [](std::uint32_t receive_buffer_bytes) {
        UdpSocket socket;
        EXPECT_TRUE(socket.open(on_loopback(receive_buffer_bytes)));
        for (const Bytes& datagram : numbered(std::vector<std::size_t>(400, 1000)))
            socket.send_to(datagram, socket.local_endpoint());
        return receive_all(socket, 400, 5).datagrams.size();
    };
    EXPECT_LT(2 * taken(4096), taken(1 << 20));
}

TEST(UdpSocket, AWindDownEndsASendOfSeveralUntilTheSocketIsOpenedAnew) {
    UdpSocket socket;
    const std::vector<Bytes> unequal = numbered({1, 3, 3});
    ASSERT_TRUE(socket.open(on_loopback()));
    socket.wind_down();
    EXPECT_EQ(send_run(socket, unequal, socket.local_endpoint()).count, 1U) << "a last word";
    ASSERT_TRUE(socket.open(on_loopback()));
    EXPECT_EQ(send_run(socket, unequal, socket.local_endpoint()).count, 3U);
}

// Needs no network.
TEST(UdpSocket, CloseWakesTheReceiverOfASocketOpenedAnewAndRefusesEverySend) {
    UdpSocket socket;
    ASSERT_TRUE(socket.open({}));
    ASSERT_TRUE(socket.set_receive_timeout(5));
    ASSERT_TRUE(socket.open({}));
    const Ipv4Endpoint self = socket.local_endpoint();
    const auto receive = [&] {
        Bytes buffer(64);
        EXPECT_EQ(socket.receive(buffer).status, ReceiveStatus::closed);
    };
    std::thread receiver(receive);
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    socket.close();
    receiver.join();
    receive();
    EXPECT_EQ(socket.local_endpoint(), Ipv4Endpoint{});
    EXPECT_FALSE(socket.send_to(hello, self));
    EXPECT_EQ(send_run(socket, numbered({3, 3, 3}), self).count, 0U);
}

}  // namespace
}  // namespace tavistro::platform
