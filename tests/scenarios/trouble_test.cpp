// Servers that change everything at once, datagrams that lie, devices that are lost: the engine
// follows, or says so and goes on.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <thread>
#include <vector>

#include "scenarios/rig.h"
#include "support/movable_clock.h"
#include "support/scripted_server.h"

namespace tavistro::test {
namespace {

TEST(Trouble, FormatsThatChangeTwentyTimesASecondAreFollowedToTheLast) {
    constexpr int changes = 20;
    Rig rig;
    ASSERT_TRUE(rig.plays());
    for (const bool stop_amid : {true, false}) {
        for (int i = 0; i < changes; ++i) {
            const bool even = i % 2 == 0;
            ASSERT_TRUE(rig.server.change_format(even ? 96000 : 44100, even ? 512 : 64));
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            const std::uint32_t state = rig.engine.state().state;
            EXPECT_TRUE(state == TAVISTRO_STATE_RUNNING || state == TAVISTRO_STATE_RESTARTING);
        }
        if (!stop_amid) continue;
        rig.engine.stop();
        EXPECT_TRUE(rig.engine.in_state(TAVISTRO_STATE_STOPPED));
        ASSERT_TRUE(rig.engine.start(rig.config));
        ASSERT_TRUE(rig.plays());
    }
    for (const auto& [rate, frames] :
         {server::StreamFormat{96000, 64}, {44100, 441}, {48000, 128}}) {
        ASSERT_TRUE(rig.server.change_format(rate, frames));
        EXPECT_TRUE(eventually([&] { return rig.engine.runs_at(rate, frames); })) << rate;
        EXPECT_TRUE(input_flows(rig.server)) << "no audio at " << rate;
    }
    EXPECT_EQ(rig.engine.state().error_code, 0U);
}

TEST(Trouble, ClocksThatJumpAnHourAndThirteenThousandBlocksASecondCostNoSession) {
    Rig rig({.first_sequence = 0xFFFFFF00});
    ASSERT_TRUE(rig.plays());
    for (const std::int64_t ms : {3'600'000, -3'600'000, 0}) {
        rig.server.set_faults({.clock_offset_ms = ms});
        EXPECT_TRUE(input_flows(rig.server)) << ms;
    }
    ASSERT_TRUE(rig.server.change_format(384000, 30));
    EXPECT_FALSE(rig.server.change_format(48000, 0));
    std::this_thread::sleep_for(std::chrono::seconds(1));
    ASSERT_TRUE(rig.server.change_format(48000, 128));
    EXPECT_TRUE(input_flows(rig.server, 600));
    EXPECT_LT(rig.server.snapshot().next_sequence, 0x80000000) << "the numbers have wrapped";
    EXPECT_TRUE(rig.engine.runs());
    EXPECT_EQ(rig.engine.state().error_code, 0U);
}

TEST(Trouble, HostileDatagramsLeaveTheSessionAlive) {
    constexpr int count = 40'000;
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
        // One bit off, in the header or the geometry; but not in the sequence number: one that is
        // far ahead is believed, and the true ones are old from then on.
        constexpr std::size_t sequence_begin = 16;
        constexpr std::size_t sequence_bytes = 4;
        TavistroProtocol::Datagram datagram = sound[random() % sound.size()];
        std::size_t at = random() % (44 - sequence_bytes);
        if (at >= sequence_begin) at += sequence_bytes;
        datagram[at] ^= static_cast<std::uint8_t>(1U << random() % 8);
        server.send(datagram);
        if (i % 4 != 0) continue;
        stranger.send_to(far_ahead, server.client());
        server.send_sync(rate, frames);
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
    EXPECT_TRUE(eventually([&] {
        advance_clock_ms(20);
        return !rig.engine.shows(TAVISTRO_MESSAGE_DEVICE_RESET_REQUESTED);
    }));
}

std::size_t entries(const char* folder) {
    const std::filesystem::directory_iterator all(folder);
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

TEST(Trouble, StartsAndStopsLeaveNothingBehind) {
    server::ReferenceServer server({.port = 0});
    ASSERT_EQ(server.start(), "");
    const ConfigFile config(server.port());
    Engine engine;
    const std::size_t threads = entries("/proc/self/task");
    std::size_t descriptors = 0;
    for (int run = 0; run <= 10; ++run) {
        ASSERT_TRUE(engine.start(config));
        ASSERT_TRUE(eventually([&] { return engine.runs(); }));
        engine.stop();
        // A system may keep what the first run has made it open.
        if (run == 0) descriptors = entries("/proc/self/fd");
        ASSERT_EQ(entries("/proc/self/fd"), descriptors) << run;
        // The system may list a thread for a moment after it has been joined.
        ASSERT_TRUE(eventually([&] { return entries("/proc/self/task") == threads; })) << run;
    }
}

}  // namespace
}  // namespace tavistro::test
