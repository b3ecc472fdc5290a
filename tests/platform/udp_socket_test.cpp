#include "platform/udp_socket.h"

#include <gtest/gtest.h>

#include <array>
#include <numeric>
#include <thread>
#include <vector>

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
    const Ipv4Endpoint everybody{0x7FFFFFFF, a.local_endpoint().port};
    EXPECT_FALSE(b.send_to(hello, everybody));
    ASSERT_TRUE(b.enable_broadcast());
    EXPECT_TRUE(b.send_to(hello, everybody));

    ASSERT_TRUE(a.set_receive_timeout(5));
    EXPECT_EQ(a.receive(buffer).status, ReceiveStatus::timed_out);

    UdpSocket c;
    EXPECT_FALSE(c.open({.bind = a.local_endpoint()}));
    EXPECT_FALSE(c.is_open());
}

std::vector<std::vector<std::uint8_t>> receive_all(UdpSocket& socket, std::size_t count,
                                                   std::uint32_t timeout_ms = 2000) {
    std::vector<std::uint8_t> buffer(max_datagram_bytes);
    std::vector<std::vector<std::uint8_t>> datagrams;
    socket.set_receive_timeout(timeout_ms);
    while (datagrams.size() < count) {
        const ReceiveResult got = socket.receive(buffer);
        if (got.status != ReceiveStatus::datagram) break;
        for_each_datagram(got, buffer, [&](DatagramBytes datagram) {
            datagrams.emplace_back(datagram.begin(), datagram.end());
        });
    }
    return datagrams;
}

TEST(UdpSocket, ARunArrivesAsTheDatagramsThatWereSent) {
    struct Case {
        const char* what;
        std::vector<std::size_t> sizes;
    };
    const Case cases[] = {
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
            ASSERT_TRUE(to.open({.recv_buffer_bytes = 1 << 20, .bind = on_loopback().bind}));
            if (in_runs) to.receive_in_runs();
            std::vector<std::vector<std::uint8_t>> sent;
            for (const std::size_t size : sizes)
                sent.emplace_back(size, static_cast<std::uint8_t>(sent.size()));
            const std::vector<DatagramBytes> run(sent.begin(), sent.end());
            const SentDatagrams taken = from.send_run(run, to.local_endpoint());
            EXPECT_EQ(taken.count, sizes.size());
            EXPECT_EQ(taken.bytes, std::accumulate(sizes.begin(), sizes.end(), std::size_t{0}));
            EXPECT_EQ(receive_all(to, sizes.size()), sent);
        }
    }
}

TEST(UdpSocket, ASmallReceiveBufferTakesFewDatagrams) {
    UdpSocket from;
    UdpSocket to;
    ASSERT_TRUE(from.open(on_loopback()));
    ASSERT_TRUE(to.open({.recv_buffer_bytes = 4096, .bind = on_loopback().bind}));
    const std::vector<std::uint8_t> datagram(1000);
    for (int i = 0; i < 60; ++i)
        from.send_to(datagram, to.local_endpoint());
    EXPECT_LT(receive_all(to, 60, 5).size(), 20u);
}

TEST(UdpSocket, AWindDownEndsASendOfSeveralUntilTheSocketIsOpenedAnew) {
    UdpSocket socket;
    const std::vector<DatagramBytes> unequal{DatagramBytes(hello).first(1), hello, hello};
    ASSERT_TRUE(socket.open(on_loopback()));
    socket.wind_down();
    EXPECT_EQ(socket.send_run(unequal, socket.local_endpoint()).count, 1U) << "a last word";
    ASSERT_TRUE(socket.open(on_loopback()));
    EXPECT_EQ(socket.send_run(unequal, socket.local_endpoint()).count, 3U);
}

// Needs no network.
TEST(UdpSocket, CloseWakesTheReceiverOfASocketOpenedAnewAndRefusesEverySend) {
    UdpSocket socket;
    ASSERT_TRUE(socket.open({}));
    ASSERT_TRUE(socket.set_receive_timeout(5));
    ASSERT_TRUE(socket.open({}));
    const Ipv4Endpoint self = socket.local_endpoint();
    const auto receive = [&] {
        Buffer buffer{};
        EXPECT_EQ(socket.receive(buffer).status, ReceiveStatus::closed);
    };
    std::thread receiver(receive);
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    socket.close();
    receiver.join();
    receive();
    EXPECT_EQ(socket.local_endpoint(), Ipv4Endpoint{});
    EXPECT_FALSE(socket.send_to(hello, self));
    EXPECT_EQ(socket.send_run(std::vector<DatagramBytes>(3, hello), self).count, 0U);
}

}  // namespace
}  // namespace tavistro::platform
