// The descriptors of a socket, and what signals do to it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <set>
#include <thread>

#include "platform/udp_socket.h"

namespace tavistro::platform {
namespace {

using Buffer = std::array<std::uint8_t, 64>;
constexpr std::array<std::uint8_t, 3> hello{1, 2, 3};

SocketOptions on_loopback() {
    return {.bind = {.address = ipv4_loopback, .port = 0}};
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
    for (const int fd : while_open) {
        if (before.contains(fd)) continue;
        EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << fd;
    }
    socket.close();
    EXPECT_EQ(open_descriptors(), while_open) << "the number must not be given away again";
    socket.release();
    EXPECT_EQ(open_descriptors(), before);
}

TEST(UdpDescriptor, SignalsNeitherEndAReceiveNorProlongIt) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    for (const std::uint32_t timeout_ms : {0U, 100U}) {
        UdpSocket socket;
        ASSERT_TRUE(socket.open(on_loopback()));
        socket.set_receive_timeout(timeout_ms);
        std::atomic<bool> done{false};
        std::thread receiver([&] {
            Buffer buffer{};
            EXPECT_EQ(socket.receive(buffer).status,
                      timeout_ms == 0 ? ReceiveStatus::datagram : ReceiveStatus::timed_out);
            done = true;
        });
        for (int i = 0; i < (timeout_ms == 0 ? 20 : 500) && !done; ++i) {
            pthread_kill(receiver.native_handle(), SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_EQ(done, timeout_ms != 0);
        EXPECT_TRUE(socket.send_to(hello, socket.local_endpoint()));
        receiver.join();
    }
}

}  // namespace
}  // namespace tavistro::platform
