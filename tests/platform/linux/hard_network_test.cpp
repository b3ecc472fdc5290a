// What only a network that is down, slow or gone for a while shows. Each case runs in a process
// with a network of its own, whose one interface is the loopback interface.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "platform/udp_socket.h"
#include "support/eventually.h"

namespace tavistro::platform {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int no_such_network = 77;
constexpr std::uint32_t stock_buffer_bytes = 212992;  // Debian's net.core.wmem_max

bool system_does(const std::string& command) {
    return std::system((command + " 2>/dev/null").c_str()) == 0;  // NOLINT(concurrency-mt-unsafe)
}

/// Runs `body` in a child with a network of its own that `command` has shaped; its failures become
/// the test's.
void in_own_network(const std::string& command, const std::function<void()>& body) {
    const pid_t child = fork();
    if (child == 0) {
        if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
            _exit(no_such_network);
        if (!system_does(command)) _exit(no_such_network);
        body();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == no_such_network)
        GTEST_SKIP() << "this system gives nobody a network of their own, or cannot shape it";
    EXPECT_EQ(status, 0) << "see above";
}

struct Sockets {
    Sockets() {
        EXPECT_TRUE(from.open({.send_buffer_bytes = stock_buffer_bytes, .bind = {}}));
        EXPECT_TRUE(to.open({.recv_buffer_bytes = 1 << 22, .bind = {}}));
    }
    Ipv4Endpoint there(std::uint32_t address = ipv4_loopback) const {
        return {address, to.local_endpoint().port};
    }
    UdpSocket from;
    UdpSocket to;
};

/// `count` datagrams of `size` bytes, each filled with its number.
struct Block {
    Block(std::size_t count, std::size_t size) {
        for (std::size_t i = 0; i < count; ++i)
            bytes.emplace_back(size, static_cast<std::uint8_t>(i));
        datagrams.assign(bytes.begin(), bytes.end());
    }
    std::vector<std::vector<std::uint8_t>> bytes;
    std::vector<DatagramBytes> datagrams;
};

/// Datagrams that come until none has come for a while, and in how many receives.
struct Arrived {
    std::size_t datagrams = 0;
    std::size_t receives = 0;
};
Arrived receive_all(UdpSocket& socket) {
    std::vector<std::uint8_t> buffer(max_datagram_bytes);
    socket.set_receive_timeout(200);
    Arrived arrived;
    for (;;) {
        const ReceiveResult got = socket.receive(buffer);
        if (got.status != ReceiveStatus::datagram) return arrived;
        ++arrived.receives;
        for_each_datagram(got, buffer, [&](DatagramBytes) { ++arrived.datagrams; });
    }
}

TEST(HardNetwork, CloseEndsAReceiveWithTheLoopbackInterfaceDown) {
    in_own_network("true", [] {
        UdpSocket socket;
        ASSERT_TRUE(socket.open({}));
        std::atomic<bool> ended{false};
        std::thread receiver([&] {
            std::vector<std::uint8_t> buffer(64);
            EXPECT_EQ(socket.receive(buffer).status, ReceiveStatus::closed);
            ended = true;
        });
        std::this_thread::sleep_for(20ms);
        socket.close();
        EXPECT_TRUE(test::eventually([&] { return ended.load(); }, 1s));
        if (!ended) _exit(1);
        receiver.join();
    });
}

TEST(HardNetwork, ALargeBlockArrivesWholeOverASlowLink) {
    in_own_network(
        "ip link set lo up && "
        "tc qdisc add dev lo root tbf rate 100mbit burst 64kb limit 8mb",
        [] {
            Sockets s;
            const Block block(456, 1200);  // 32 channels x 4096 frames
            constexpr int blocks = 5;
            std::thread sender([&] {
                for (int i = 0; i < blocks; ++i) {
                    s.from.send_run(block.datagrams, s.there());
                    std::this_thread::sleep_for(85ms);  // their period at 48 kHz
                }
            });
            EXPECT_EQ(receive_all(s.to).datagrams, blocks * block.datagrams.size());
            sender.join();
        });
}

TEST(HardNetwork, ASendThatWaitsForRoomGivesUpWhenItIsTold) {
    in_own_network(
        "ip link set lo up && "
        "tc qdisc add dev lo root tbf rate 100kbit burst 64kb limit 8mb",
        [] {
            for (const bool by_close : {false, true}) {
                Sockets s;
                const Block block(456, 1200);
                std::atomic<bool> ended{false};
                std::thread sender([&] {
                    EXPECT_LT(s.from.send_run(block.datagrams, s.there()).count, 456U);
                    ended = true;
                });
                std::this_thread::sleep_for(50ms);
                EXPECT_FALSE(ended) << "it does not wait";
                by_close ? s.from.close() : s.from.wind_down();
                EXPECT_TRUE(test::eventually([&] { return ended.load(); }, 1s));
                if (!ended) _exit(1);
                sender.join();
                const auto begin = Clock::now();
                EXPECT_FALSE(s.from.send_to(block.datagrams[0], s.there())) << "no room";
                EXPECT_LT(Clock::now() - begin, 1s) << "a last word does not wait";
            }
        });
}

TEST(HardNetwork, DatagramsAboveTheMtuArriveThoughNotAsRuns) {
    in_own_network("ip link set lo mtu 1500 up", [] {
        Sockets s;
        const Block block(4, 3000);
        EXPECT_EQ(s.from.send_run(block.datagrams, s.there()).count, 4U);
        EXPECT_EQ(receive_all(s.to).datagrams, 4U);
    });
}

TEST(HardNetwork, RunsAreSentAgainOnceALostRouteIsBack) {
    in_own_network("ip link set lo up", [] {
        Sockets s;
        s.to.receive_in_runs();
        const Ipv4Endpoint address = s.there(0x0A090909);
        const Block block(4, 1000);
        EXPECT_EQ(s.from.send_run(block.datagrams, address).count, 0U) << "there is no route";
        ASSERT_TRUE(system_does("ip address add 10.9.9.9/32 dev lo"));
        EXPECT_EQ(s.from.send_run(block.datagrams, address).count, 4U);
        const Arrived arrived = receive_all(s.to);
        EXPECT_EQ(arrived.datagrams, 4U);
        EXPECT_EQ(arrived.receives, 1U) << "one by one";
        EXPECT_EQ(s.from.send_run(Block(20, 9000).datagrams, address).count, 20U);
        EXPECT_LT(receive_all(s.to).receives, 20U) << "more than one piece may hold, one by one";
    });
}

}  // namespace
}  // namespace tavistro::platform
