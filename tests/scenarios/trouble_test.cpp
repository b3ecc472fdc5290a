// Datagrams that lie, stops at any moment, devices that fail: the engine says so and goes on.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <random>
#include <thread>
#include <vector>

#include "platform/threads.h"
#include "scenarios/rig.h"

namespace tavistro::test {
namespace {

using server::FaultOptions;
using server::ReferenceServer;

// Passes datagrams between one client and a server, both ways, and lets a test speak in the
// server's name.
class Relay {
  public:
    explicit Relay(std::uint16_t server_port) : server_{platform::ipv4_loopback, server_port} {
        EXPECT_TRUE(to_client_.open({.bind = {platform::ipv4_loopback, 0}}));
        EXPECT_TRUE(to_server_.open({.bind = {platform::ipv4_loopback, 0}}));
        port_ = to_client_.local_endpoint().port;
        EXPECT_TRUE(up_.start("relay-up", [this] { pass(to_client_, to_server_, true); }));
        EXPECT_TRUE(down_.start("relay-down", [this] { pass(to_server_, to_client_, false); }));
    }
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;
    ~Relay() {
        to_client_.close();
        to_server_.close();
        up_.join();
        down_.join();
    }

    std::uint16_t port() const { return port_; }
    platform::Ipv4Endpoint client() const { return client_; }
    void say_to_client(std::span<const std::uint8_t> datagram) {
        to_client_.send_to(datagram, client_);
    }
    std::vector<std::uint8_t> last_from_server() const {
        const std::lock_guard lock(mutex_);
        return last_from_server_;
    }

  private:
    void pass(platform::UdpSocket& from, platform::UdpSocket& to, bool upwards) {
        std::vector<std::uint8_t> buffer(platform::max_datagram_bytes);
        while (true) {
            const auto got = from.receive(buffer);
            if (got.status == platform::ReceiveStatus::closed) return;
            if (got.status != platform::ReceiveStatus::datagram) continue;
            const auto datagram = std::span(buffer).first(got.size);
            if (upwards) {
                client_ = got.source;
                to.send_to(datagram, server_);
            } else {
                {
                    const std::lock_guard lock(mutex_);
                    last_from_server_.assign(datagram.begin(), datagram.end());
                }
                to.send_to(datagram, client_);
            }
        }
    }

    platform::Ipv4Endpoint server_;
    std::atomic<platform::Ipv4Endpoint> client_{};
    platform::UdpSocket to_client_;
    platform::UdpSocket to_server_;
    platform::Thread up_;
    platform::Thread down_;
    std::uint16_t port_ = 0;
    mutable std::mutex mutex_;
    std::vector<std::uint8_t> last_from_server_;
};

TEST(Trouble, HostileDatagramsLeaveTheSessionAlive) {
    constexpr int count = 100'000;
    ReferenceServer server({.port = 0, .melodies = {{.channel = 0}}});
    ASSERT_EQ(server.start(), "");
    Relay relay(server.port());
    const ConfigFile config(relay.port());
    Engine engine;
    ASSERT_TRUE(engine.start(config));
    ASSERT_TRUE(eventually([&] { return engine.runs(); }));

    platform::UdpSocket stranger;
    ASSERT_TRUE(stranger.open({.bind = {platform::ipv4_loopback, 0}}));
    std::mt19937 random(20261122);
    for (int i = 0; i < count; ++i) {
        std::vector<std::uint8_t> datagram = relay.last_from_server();
        switch (i % 4) {
            case 0:  // noise
                datagram.resize(1 + random() % 1400);
                for (auto& byte : datagram)
                    byte = static_cast<std::uint8_t>(random());
                break;
            case 1:
                datagram.resize(1 + random() % datagram.size());
                break;
            case 2: {  // one bit off, in the header or the geometry
                // But not in the sequence number: one that is far ahead is believed, and the true
                // ones are old from then on.
                constexpr std::size_t sequence_begin = 16;
                constexpr std::size_t sequence_bytes = 4;
                std::size_t at = random() % (44 - sequence_bytes);
                if (at >= sequence_begin) at += sequence_bytes;
                datagram[at % datagram.size()] ^= static_cast<std::uint8_t>(1U << random() % 8);
                break;
            }
            default:  // sound, but from somebody else
                stranger.send_to(datagram, relay.client());
                continue;
        }
        relay.say_to_client(datagram);
    }
    EXPECT_TRUE(input_flows(server)) << "the session is dead";
    EXPECT_EQ(engine.state().error_code, 0U);
    EXPECT_TRUE(eventually([&] { return engine.runs(); }));
}

struct StopPhase {
    const char* name;
    std::uint32_t state;
    FaultOptions faults;
    bool sending;
    const char* settings;
    friend void PrintTo(const StopPhase& phase, std::ostream* out) { *out << phase.name; }
};

class StopIn : public ::testing::TestWithParam<StopPhase> {};

TEST_P(StopIn, EndsTheRunAndTheNextOneWorks) {
    const StopPhase& phase = GetParam();
    ReferenceServer server({.port = 0, .faults = phase.faults});
    server.set_sending(phase.sending);
    ASSERT_EQ(server.start(), "");
    const ConfigFile bad(server.port(), phase.settings);
    Engine engine;
    ASSERT_TRUE(engine.start(bad));
    ASSERT_TRUE(eventually([&] { return engine.in_state(phase.state); }));
    engine.stop();
    EXPECT_TRUE(engine.in_state(phase.state == TAVISTRO_STATE_FAILED ? TAVISTRO_STATE_FAILED
                                                                     : TAVISTRO_STATE_STOPPED));

    server.set_faults({});
    server.set_sending(true);
    const ConfigFile good(server.port());
    ASSERT_TRUE(engine.start(good));
    EXPECT_TRUE(eventually([&] { return engine.runs(); }));
    EXPECT_TRUE(input_flows(server));
}

INSTANTIATE_TEST_SUITE_P(
    Phases, StopIn,
    ::testing::Values(
        StopPhase{"Starting", TAVISTRO_STATE_STARTING, {.silent = true}, true, ""},
        StopPhase{"Connected", TAVISTRO_STATE_CONNECTED, {}, false, ""},
        StopPhase{"Running", TAVISTRO_STATE_RUNNING, {}, true, ""},
        StopPhase{"RestartingDevice",
                  TAVISTRO_STATE_RESTARTING,
                  {},
                  true,
                  "[test]\nloopback_device = 0\n[asio]\ndriver_name = not installed\n"},
        StopPhase{
            "FailedOnIncompatibleServer", TAVISTRO_STATE_FAILED, {.reply_version = 4}, true, ""},
        StopPhase{"FailedOnConfiguration",
                  TAVISTRO_STATE_FAILED,
                  {},
                  true,
                  "[latency]\nclient_latency_blocks = 129\n"}),
    [](const auto& param) { return param.param.name; });

TEST(Trouble, ALostLoopbackDeviceIsReportedWhileAudioGoesOn) {
    ReferenceServer server({.port = 0});
    ASSERT_EQ(server.start(), "");
    const ConfigFile config(server.port(),
                            "loopback_device_lost_after_ms = 1\n"
                            "loopback_device_lost_duration_ms = 2500\n");
    Engine engine;
    ASSERT_TRUE(engine.start(config));
    EXPECT_TRUE(eventually([&] { return engine.shows(TAVISTRO_MESSAGE_DEVICE_RESET_REQUESTED); }));
    EXPECT_TRUE(engine.runs());
    EXPECT_EQ(engine.state().event_count, 0U) << "there is no device to recover";
    EXPECT_TRUE(input_flows(server));
    EXPECT_TRUE(eventually([&] { return !engine.shows(TAVISTRO_MESSAGE_DEVICE_RESET_REQUESTED); }));
}

std::size_t entries(const char* folder) {
    const std::filesystem::directory_iterator all(folder);
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

TEST(Trouble, StartsAndStopsLeaveNothingBehind) {
    ReferenceServer server({.port = 0});
    ASSERT_EQ(server.start(), "");
    const ConfigFile config(server.port());
    Engine engine;
    const auto cycle = [&] {
        ASSERT_TRUE(engine.start(config));
        ASSERT_TRUE(eventually([&] { return engine.runs(); }));
        engine.stop();
    };
    cycle();
    const std::size_t descriptors = entries("/proc/self/fd");
    const std::size_t threads = entries("/proc/self/task");
    for (int i = 0; i < 20; ++i)
        cycle();
    EXPECT_EQ(entries("/proc/self/fd"), descriptors);
    EXPECT_EQ(entries("/proc/self/task"), threads);
}

}  // namespace
}  // namespace tavistro::test
