// The driver in a minimal host, with its output connected to its input, and in a complete engine.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <string>

#include "drivers/jack/jack_driver.h"
#include "jack/jack_server.h"
#include "scenarios/rig.h"
#include "support/realtime_guard.h"

namespace tavistro::test {
namespace {

constexpr std::int32_t period = 128;
constexpr std::int32_t far_channel = 17;  // beyond the server's physical ports

// The host's callbacks, which have no context. Sends 1, 2, 3, ... to the far output and expects
// them one period later: the connection adds one period, the driver none.
struct Host {
    static inline AsioBufferInfo channels[4];
    static inline std::int32_t last_half;
    static inline float sent = 0;  // exact for about five minutes
    static inline std::atomic<int> frames_in_order, periods, resets, overloads, unordered_halves;
    static inline std::atomic<bool> held_up, inside;

    static void open_channels() {
        inside = false;
        resets = 0;
        int i = 0;
        for (const std::int32_t channel : {0, far_channel})
            for (const std::int32_t is_input : {1, 0})
                channels[i++] = {is_input, channel, {}};
        last_half = 1;
    }
    static void buffer_switch(std::int32_t half, std::int32_t) {
        // Until the end of the thread, so that it also guards the driver's code.
        static thread_local const RealtimeScope scope;
        if (half == last_half) ++unordered_halves;
        last_half = half;
        const auto* in = static_cast<const float*>(channels[2].half[half]);
        auto* out = static_cast<float*>(channels[3].half[half]);
        for (std::int32_t i = 0; i < period; ++i) {
            out[i] = ++sent;
            frames_in_order = in[i] == sent - period ? frames_in_order + 1 : 0;
        }
        const auto begin = std::chrono::steady_clock::now();
        while (held_up && std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(100))
            inside = true;
        held_up = false;
        ++periods;
    }
    static AsioTimeRecord* buffer_switch_time_info(AsioTimeRecord* time, std::int32_t half,
                                                   std::int32_t now) {
        buffer_switch(half, now);
        return time;
    }
    static void rate_changed(double) {}
    static std::int32_t message(std::int32_t selector, std::int32_t value, void*, double*) {
        if (selector == kAsioResetRequest) ++resets;
        if (selector == kAsioOverload) ++overloads;
        return selector == kAsioSupportsTimeInfo ||
               (selector == kAsioSelectorSupported && value == kAsioOverload);
    }
    static inline AsioCallbacks callbacks{buffer_switch, rate_changed, message,
                                          buffer_switch_time_info};
};

std::string error_message(AsioDriver& driver) {
    std::array<char, 256> text{};
    driver.getErrorMessage(text.data());
    return text.data();
}

TEST(JackDriver, PassesEverySampleInBothDirectionsWithinOnePeriod) {
    JackServer server;
    AsioDriver* driver = jack::create_jack_driver();
    ASSERT_EQ(driver->init(nullptr), 1) << error_message(*driver);
    EXPECT_EQ(driver->setSampleRate(48000), kAsioOk);
    EXPECT_EQ(driver->setSampleRate(44100), kAsioNoClock);
    Host::open_channels();
    const auto create = [&](std::int32_t size) {
        return driver->createBuffers(Host::channels, 4, size, &Host::callbacks);
    };
    EXPECT_EQ(create(256), kAsioInvalidMode);
    EXPECT_EQ(driver->start(), kAsioInvalidMode);
    ASSERT_EQ(create(period), kAsioOk);
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
    EXPECT_TRUE(eventually([] { return Host::frames_in_order > many_frames; }));
    AsioCount64 frames{}, nanoseconds{};
    EXPECT_EQ(driver->getSamplePosition(&frames, &nanoseconds), kAsioOk);
    EXPECT_GT(frames.lo, static_cast<std::uint32_t>(many_frames));

    const std::string count_before = error_message(*driver);
    EXPECT_TRUE(count_before.ends_with(" missed deadlines.")) << count_before;
    Host::held_up = true;
    EXPECT_TRUE(
        eventually([&] { return Host::overloads > 0 && error_message(*driver) != count_before; }));
    EXPECT_EQ(Host::resets, 0);
    EXPECT_EQ(jack_set_buffer_size(client.get(), 256), 0);
    EXPECT_TRUE(eventually([] { return Host::resets > 0; }));
    EXPECT_EQ(driver->stop(), kAsioOk);
    const int periods = Host::periods;
    EXPECT_EQ(driver->disposeBuffers(), kAsioOk);
    EXPECT_EQ(driver->Release(), 0U);
    EXPECT_EQ(Host::periods, periods);
    EXPECT_EQ(Host::unordered_halves, 0);
    EXPECT_EQ(realtime_violations().total(), 0U);
}

TEST(JackDriver, ReleasesADeadServerAndReportsAMissingOne) {
    JackServer server;
    Host::open_channels();
    AsioDriver* driver = jack::create_jack_driver();
    ASSERT_EQ(driver->init(nullptr), 1) << error_message(*driver);
    ASSERT_EQ(driver->createBuffers(Host::channels, 4, period, &Host::callbacks), kAsioOk);
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

TEST(JackEngine, PlaysThroughAJackConnection) {
    JackServer jack;
    Rig rig{with_tune, "loopback_device = 0\n[asio]\ndriver_name = JACK\n"};
    ASSERT_TRUE(eventually([&] { return rig.engine.runs_at(48000, 128); }));
    jack_connect(open_jack_client().get(), "tavistro:out_1", "tavistro:in_1");
    EXPECT_TRUE(rig.sounds(2)) << "state " << rig.engine.state().state;
}

}  // namespace
}  // namespace tavistro::test
