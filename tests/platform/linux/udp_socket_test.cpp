// Descriptors and signals, and what only a network that is slow or gone for a while shows: such a
// case runs in a process with a network of its own, whose one interface is the loopback interface.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <set>
#include <string>
#include <thread>

#include "platform/udp_rig.h"
#include "support/eventually.h"

namespace tavistro::platform {
namespace {

using namespace std::chrono_literals;

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
        if ((unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) ||
            !system_does(command))
            _exit(no_such_network);
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
    /// How many of `count` datagrams of `size` bytes are sent.
    std::size_t send(std::size_t count, std::size_t size, std::uint32_t address = ipv4_loopback) {
        return send_run(from, numbered(std::vector(count, size)),
                        {address, to.local_endpoint().port})
            .count;
    }
    UdpSocket from;
    UdpSocket to;
};

TEST(HardNetwork, ASendThatWaitsForRoomGivesUpWhenItIsTold) {
    constexpr auto slow =
        "ip link set lo up && tc qdisc add dev lo root tbf rate 1kbit burst 64kb limit 8mb";
    in_own_network(slow, [] {
        for (const bool by_close : {false, true}) {
            Sockets s;
            std::atomic<bool> ended{false};
            std::thread sender([&] {
                EXPECT_LT(s.send(456, 1200), 456U);  // a block of 32 channels x 4096 frames
                ended = true;
            });
            std::this_thread::sleep_for(50ms);
            EXPECT_FALSE(ended) << "it does not wait";
            by_close ? s.from.close() : s.from.wind_down();
            EXPECT_TRUE(test::eventually([&] { return ended.load(); }, 1s));
            if (!ended) _exit(1);
            sender.join();
            const auto begin = std::chrono::steady_clock::now();
            EXPECT_EQ(s.send(1, 1200), 0U) << "no room";
            EXPECT_LT(std::chrono::steady_clock::now(), begin + 1s) << "a last word does not wait";
        }
    });
}

TEST(HardNetwork, DatagramsAboveTheMtuArriveThoughNotAsRuns) {
    in_own_network("ip link set lo mtu 1500 up", [] {
        Sockets s;
        EXPECT_EQ(s.send(4, 3000), 4U);
        EXPECT_EQ(receive_all(s.to, 4).datagrams.size(), 4U);
    });
}

TEST(HardNetwork, RunsAreSentAgainOnceALostRouteIsBack) {
    in_own_network("ip link set lo up", [] {
        constexpr std::uint32_t address = 0x0A090909;
        Sockets s;
        s.to.receive_in_runs();
        EXPECT_EQ(s.send(4, 1000, address), 0U) << "there is no route";
        ASSERT_TRUE(system_does("ip address add 10.9.9.9/32 dev lo"));
        EXPECT_EQ(s.send(4, 1000, address), 4U);
        EXPECT_EQ(receive_all(s.to, 4).receives, 1U) << "one by one";
        EXPECT_EQ(s.send(20, 9000, address), 20U);
        EXPECT_LT(receive_all(s.to, 20).receives, 20U) << "more than one piece may hold";
    });
}

std::set<int> open_descriptors() {
    std::set<int> descriptors;
    for (int fd = 0; fd < getdtablesize(); ++fd)
        if (fcntl(fd, F_GETFD) != -1) descriptors.insert(fd);
    return descriptors;
}

TEST(UdpDescriptor, StaysWithTheSocketUntilReleaseAndOutOfChildProcesses) {
    const std::set<int> before = open_descriptors();
    UdpSocket socket;
    ASSERT_TRUE(socket.open(on_loopback()));
    const std::set<int> while_open = open_descriptors();
    for (const int fd : while_open)
        EXPECT_TRUE(before.contains(fd) || (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0) << fd;
    socket.close();
    EXPECT_EQ(open_descriptors(), while_open) << "the number must not be given away again";
    socket.release();
    EXPECT_EQ(open_descriptors(), before);
}

TEST(UdpDescriptor, SignalsNeitherEndAReceiveNorProlongIt) {
    std::signal(SIGUSR1, [](int) {});
    UdpSocket socket;
    ASSERT_TRUE(socket.open(on_loopback()));
    std::jthread host([receiver = pthread_self()](const std::stop_token& done) {
        for (int i = 0; i < 2000 && !done.stop_requested(); ++i) {
            pthread_kill(receiver, SIGUSR1);
            std::this_thread::sleep_for(1ms);
        }
    });
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(receive_all(socket, 1, 100).datagrams.empty());
    EXPECT_GE(std::chrono::steady_clock::now(), begin + 90ms);
    EXPECT_LT(std::chrono::steady_clock::now(), begin + 2s);
}

}  // namespace
}  // namespace tavistro::platform
