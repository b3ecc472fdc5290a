// Datagrams that lie, devices that are lost, runs without end: the engine says so and goes on.

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <vector>

#include "scenarios/rig.h"
#include "support/scripted_server.h"

namespace tavistro::test {
namespace {

TEST(Trouble, HostileDatagramsLeaveTheSessionAlive) {
    constexpr int count = 100'000;
    constexpr std::uint32_t rate = 48000;
    constexpr std::uint16_t frames = 128;
    ScriptedServer server;
    const ConfigFile config(server.port());
    Engine engine;
    ASSERT_TRUE(engine.start(config));
    ASSERT_TRUE(eventually([&] { return engine.in_state(TAVISTRO_STATE_CONNECTED); }));
    server.send_sync(rate, frames);
    ASSERT_TRUE(eventually([&] { return engine.runs(); }));

    platform::UdpSocket stranger;
    ASSERT_TRUE(stranger.open({.bind = {platform::ipv4_loopback, 0}}));
    const TavistroProtocol::Datagram far_ahead =
        TavistroProtocol::encode_sync(config.client_id(), {0x40000000, rate, frames, 0, 0});
    TavistroProtocol::DatagramList sound;
    TavistroProtocol::encode_audio_block(
        {config.client_id(), 1, rate, frames, 2, std::vector<float>(2 * frames, 0.5F)}, 1200,
        sound);
    sound.push_back(
        TavistroProtocol::encode_sync(config.client_id(), {1, rate, frames, 0, 1'000'000}));
    sound.push_back(TavistroProtocol::encode_pong({config.client_id(), 1, 2, 3, 4}));
    std::mt19937 random(20261122);
    for (int i = 0; i < count; ++i) {
        TavistroProtocol::Datagram datagram = sound[random() % sound.size()];
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
                datagram[at] ^= static_cast<std::uint8_t>(1U << random() % 8);
                break;
            }
            default:  // sound, but from somebody else
                stranger.send_to(far_ahead, server.client());
                server.send_sync(rate, frames);
                continue;
        }
        server.send(datagram);
    }
    const std::uint64_t answered = server.audio_received;
    EXPECT_TRUE(eventually([&] {
        server.send_sync(rate, frames);
        return server.audio_received >= answered + 50;
    })) << "the session is dead";
    EXPECT_TRUE(eventually([&] { return engine.runs_at(rate, frames); }));
    EXPECT_EQ(engine.state().error_code, 0U);
}

TEST(Trouble, ALostLoopbackDeviceIsReportedWhileAudioGoesOn) {
    Rig rig({},
            "loopback_device_lost_after_ms = 1\n"
            "loopback_device_lost_duration_ms = 2500\n");
    EXPECT_TRUE(
        eventually([&] { return rig.engine.shows(TAVISTRO_MESSAGE_DEVICE_RESET_REQUESTED); }));
    EXPECT_TRUE(rig.engine.runs());
    EXPECT_EQ(rig.engine.state().event_count, 0U) << "there is no device to recover";
    EXPECT_TRUE(input_flows(rig.server));
    EXPECT_TRUE(
        eventually([&] { return !rig.engine.shows(TAVISTRO_MESSAGE_DEVICE_RESET_REQUESTED); }));
}

std::size_t entries(const char* folder) {
    const std::filesystem::directory_iterator all(folder);
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

TEST(Trouble, StartsAndStopsLeaveNothingBehind) {
    Rig rig;
    std::size_t descriptors = 0, threads = 0;
    for (int run = 0; run <= 20; ++run) {
        ASSERT_TRUE(eventually([&] { return rig.engine.runs(); }));
        rig.engine.stop();
        if (run == 0) descriptors = entries("/proc/self/fd"), threads = entries("/proc/self/task");
        ASSERT_EQ(entries("/proc/self/fd"), descriptors);
        ASSERT_EQ(entries("/proc/self/task"), threads);
        ASSERT_TRUE(rig.engine.start(rig.config));
    }
}

}  // namespace
}  // namespace tavistro::test
