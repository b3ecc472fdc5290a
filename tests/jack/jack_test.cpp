// The driver in a minimal host, with its output connected to its input, and in a complete engine.

#include <gtest/gtest.h>

#include <string>

#include "jack/jack_host.h"
#include "jack/jack_server.h"
#include "scenarios/rig.h"

namespace tavistro::test {
namespace {

constexpr std::int32_t period = 128;

jack_nframes_t latency_of(jack_client_t* client, const char* port,
                          jack_latency_callback_mode_t mode) {
    jack_latency_range_t range{};
    jack_port_get_latency_range(jack_port_by_name(client, port), mode, &range);
    return range.max;
}

TEST(JackDriver, PassesEverySampleInBothDirectionsWithinOnePeriod) {
    JackServer server;
    AsioDriver* driver = jack::create_jack_driver();
    ASSERT_EQ(driver->init(nullptr), 1) << error_message(*driver);
    EXPECT_EQ(driver->setSampleRate(48000), kAsioOk);
    EXPECT_EQ(driver->setSampleRate(44100), kAsioNoClock);
    EXPECT_EQ(
        error_message(*driver),
        "The JACK server runs at 48000 Hz, not at 44100: start it with jackd -d alsa -r 44100.");
    EXPECT_EQ(Host::open_channels(*driver, period), kAsioNoClock);
    EXPECT_EQ(driver->setSampleRate(48000), kAsioOk);
    EXPECT_EQ(Host::open_channels(*driver, 8193), kAsioInvalidMode);
    EXPECT_EQ(error_message(*driver),
              "JACK has no blocks of 8193 frames: it has 16 to 8192 frames.");
    EXPECT_EQ(driver->start(), kAsioInvalidMode);
    ASSERT_EQ(Host::open_channels(*driver, period), kAsioOk);
    Host::expect_period(period);
    std::int32_t input_latency = 0, output_latency = 0;
    EXPECT_EQ(driver->getLatencies(&input_latency, &output_latency), kAsioOk);
    EXPECT_EQ(input_latency, 128) << "latency of the server";
    ASSERT_EQ(driver->start(), kAsioOk);
    const auto client = open_jack_client();
    const auto connected = [&](const char* port, const char* other) {
        return jack_port_connected_to(jack_port_by_name(client.get(), port), other) != 0;
    };
    EXPECT_TRUE(eventually([&] {
        return connected("tavistro:in_1", "system:capture_1") &&
               connected("tavistro:out_1", "system:playback_1");
    }));
    EXPECT_EQ(jack_connect(client.get(), "tavistro:out_18", "tavistro:in_18"), 0);
    constexpr int many_frames = 200 * period;
    EXPECT_TRUE(loops(many_frames));
    AsioCount64 frames{}, nanoseconds{};
    EXPECT_EQ(driver->getSamplePosition(&frames, &nanoseconds), kAsioOk);
    EXPECT_GT(frames.lo, static_cast<std::uint32_t>(many_frames));

    const std::string count_before = error_message(*driver);
    EXPECT_TRUE(count_before.ends_with(" missed deadlines.")) << count_before;
    Host::held_up = true;
    EXPECT_TRUE(
        eventually([&] { return Host::overloads > 0 && error_message(*driver) != count_before; }));
    EXPECT_EQ(Host::resets, 0);
    EXPECT_EQ(driver->stop(), kAsioOk);
    const int blocks = Host::blocks;
    EXPECT_EQ(driver->disposeBuffers(), kAsioOk);
    EXPECT_EQ(driver->Release(), 0U);
    EXPECT_EQ(Host::blocks, blocks);
    EXPECT_EQ(Host::unordered_halves, 0);
    EXPECT_EQ(realtime_violations().total(), 0U);
}

TEST(JackDriver, PlaysEveryBlockAtEveryPeriodWithTheDelayThatItReports) {
    JackServer server;
    const auto client = open_jack_client();
    AsioDriver* driver = jack::create_jack_driver();
    ASSERT_EQ(driver->init(nullptr), 1) << error_message(*driver);
    for (const std::int32_t block : {64, 128, 480}) {
        for (const jack_nframes_t frames : {16U, 64U, 100U, 128U, 256U, 1024U}) {
            SCOPED_TRACE(std::to_string(frames) + " frames, block " + std::to_string(block));
            ASSERT_EQ(jack_set_buffer_size(client.get(), frames), 0);
            ASSERT_EQ(Host::open_channels(*driver, block), kAsioOk);
            Host::expect_period(frames);
            ASSERT_EQ(driver->start(), kAsioOk);
            const auto delay = static_cast<jack_nframes_t>(Host::loop_frames) - frames;
            const auto latency = [&](const char* port, jack_latency_callback_mode_t mode) {
                return latency_of(client.get(), port, mode);
            };
            const jack_nframes_t capture = latency("system:capture_1", JackCaptureLatency);
            const jack_nframes_t playback = latency("system:playback_1", JackPlaybackLatency);
            EXPECT_TRUE(eventually([&] {
                return latency("tavistro:out_1", JackCaptureLatency) == capture + delay &&
                       latency("tavistro:in_1", JackPlaybackLatency) == playback + delay;
            }));
            std::int32_t input = 0, output = 0;
            EXPECT_EQ(driver->getLatencies(&input, &output), kAsioOk);
            EXPECT_EQ(input + output, static_cast<std::int32_t>(capture + playback + delay));
            ASSERT_EQ(jack_connect(client.get(), "tavistro:out_18", "tavistro:in_18"), 0);
            ASSERT_TRUE(loops(5000));
            EXPECT_EQ(driver->disposeBuffers(), kAsioOk);
        }
    }
    EXPECT_EQ(driver->Release(), 0U);
    EXPECT_EQ(realtime_violations().total(), 0U);
}

TEST(JackDriver, FollowsThePeriodWhileItPlays) {
    JackServer server;
    const auto client = open_jack_client();
    AsioDriver* driver = jack::create_jack_driver();
    ASSERT_EQ(driver->init(nullptr), 1) << error_message(*driver);
    ASSERT_EQ(Host::open_channels(*driver, period), kAsioOk);
    Host::expect_period(period);
    ASSERT_EQ(driver->start(), kAsioOk);
    ASSERT_EQ(jack_connect(client.get(), "tavistro:out_18", "tavistro:in_18"), 0);
    EXPECT_TRUE(loops(5000));
    const auto overloads_at = [&](jack_nframes_t frames) {
        const int before = Host::overloads;
        EXPECT_EQ(jack_set_buffer_size(client.get(), frames), 0);
        Host::expect_period(frames);
        EXPECT_TRUE(loops(5000)) << frames;
        return Host::overloads - before;
    };
    overloads_at(256);
    for (const jack_nframes_t frames : {64U, 100U, 1024U})
        EXPECT_GE(overloads_at(frames), 1) << frames;
    overloads_at(period);
    EXPECT_GE(Host::new_latencies, 5);
    EXPECT_EQ(Host::resets, 0);
    EXPECT_EQ(driver->Release(), 0U);
    EXPECT_EQ(Host::unordered_halves, 0);
    EXPECT_EQ(realtime_violations().total(), 0U);
}

TEST(JackDriver, ReleasesADeadServerAndReportsAMissingOne) {
    JackServer server;
    AsioDriver* driver = jack::create_jack_driver();
    ASSERT_EQ(driver->init(nullptr), 1) << error_message(*driver);
    ASSERT_EQ(Host::open_channels(*driver, period), kAsioOk);
    ASSERT_EQ(driver->start(), kAsioOk);
    Host::held_up = true;
    ASSERT_TRUE(eventually([] { return Host::inside.load(); }));
    server.end(SIGKILL);  // libjack cancels its thread, which must leave the callback first
    EXPECT_TRUE(eventually([] { return Host::resets > 0; }));
    EXPECT_EQ(driver->stop(), kAsioOk);
    EXPECT_FALSE(Host::held_up) << "cancelled in the callback";
    EXPECT_EQ(driver->start(), kAsioHardwareFault);
    EXPECT_EQ(driver->Release(), 0U) << "with buffers";

    AsioDriver* orphan = jack::create_jack_driver();
    EXPECT_EQ(orphan->init(nullptr), 0);
    EXPECT_NE(error_message(*orphan).find("is running"), std::string::npos);
    EXPECT_EQ(orphan->Release(), 0U);
}

TEST(JackEngine, PlaysOnThroughEveryChangeOfThePeriod) {
    JackServer jack;
    Rig rig{with_tune,
            "loopback_device = 0\n[asio]\ndriver_name = JACK\n[latency]\n"
            "client_latency_blocks = 16\n"};
    ASSERT_TRUE(eventually([&] { return rig.engine.runs_at(48000, 128); }));
    const auto client = open_jack_client();
    jack_connect(client.get(), "tavistro:out_1", "tavistro:in_1");
    EXPECT_TRUE(rig.sounds(2)) << "state " << rig.engine.state().state;
    const std::uint64_t events = rig.engine.state().next_event_sequence;
    for (const jack_nframes_t frames : {64U, 256U, 100U, 1024U, 16U, 128U}) {
        ASSERT_EQ(jack_set_buffer_size(client.get(), frames), 0);
        EXPECT_TRUE(rig.sounds(2)) << frames;
        EXPECT_TRUE(rig.engine.runs()) << frames;
    }
    EXPECT_EQ(rig.engine.state().next_event_sequence, events) << "the device was reopened";
}

}  // namespace
}  // namespace tavistro::test
