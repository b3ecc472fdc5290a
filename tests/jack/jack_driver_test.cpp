// The driver as any host sees it, with another client of the same server at the other end.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <string>

#include "drivers/jack/jack_driver.h"
#include "jack/jack_server.h"
#include "scenarios/rig.h"
#include "support/realtime_guard.h"

namespace tavistro::test {
namespace {

constexpr jack_nframes_t period = 128;
constexpr int many_frames = 200 * period;
constexpr std::int32_t far_channel = 17;  // beyond the server's physical ports

// The host's end of the callbacks, which carry no context: sends its input back.
struct Host {
    static inline AsioBufferInfo channels[4];
    static inline std::int32_t last_half;
    static inline std::atomic<int> periods, resets, overloads, unordered_halves;
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
        // From here to the end of the thread, so that it guards the driver's own part as well.
        static thread_local const RealtimeScope scope;
        if (half == last_half) ++unordered_halves;
        last_half = half;
        const auto* in = static_cast<const float*>(channels[2].half[half]);
        std::memcpy(channels[3].half[half], in, period * sizeof(float));
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

/// Sends 1, 2, 3, ... to the host's far input and hears what the host sends back.
class Peer {
  public:
    Peer() : client_(open_jack_client()) {
        to_host_ =
            jack_port_register(handle(), "to_host", JACK_DEFAULT_AUDIO_TYPE, JackPortIsOutput, 0);
        from_host_ =
            jack_port_register(handle(), "from_host", JACK_DEFAULT_AUDIO_TYPE, JackPortIsInput, 0);
        jack_set_process_callback(
            handle(),
            [](jack_nframes_t frames, void* peer) {
                static_cast<Peer*>(peer)->exchange_periods(frames);
                return 0;
            },
            this);
        EXPECT_EQ(jack_activate(handle()), 0);
    }
    jack_client_t* handle() const { return client_.get(); }
    void connect() {
        EXPECT_EQ(jack_connect(handle(), "test:to_host", "tavistro:in_18"), 0);
        EXPECT_EQ(jack_connect(handle(), "tavistro:out_18", "test:from_host"), 0);
    }
    bool connected(const char* port, const char* other) const {
        return jack_port_connected_to(jack_port_by_name(handle(), port), other) != 0;
    }

    std::atomic<int> frames_in_order{0};  ///< the latest that came back without a gap
    std::atomic<float> delay_frames{0};

  private:
    void exchange_periods(jack_nframes_t frames) {
        auto* out = static_cast<float*>(jack_port_get_buffer(to_host_, frames));
        const auto* in = static_cast<const float*>(jack_port_get_buffer(from_host_, frames));
        for (jack_nframes_t i = 0; i < frames; ++i) {
            out[i] = ++sent_;  // exact for some five minutes
            frames_in_order = in[i] != 0 && in[i] == last_ + 1 ? frames_in_order + 1 : 0;
            last_ = in[i];
            delay_frames = sent_ - in[i];
        }
    }

    float sent_ = 0;
    float last_ = 0;
    jack_port_t* to_host_;
    jack_port_t* from_host_;
    JackClientHandle client_;
};

std::string error_message(AsioDriver& driver) {
    std::array<char, 256> text{};
    driver.getErrorMessage(text.data());
    return text.data();
}

TEST(JackDriver, CarriesEverySampleBothWaysWithinOnePeriod) {
    JackServer server;
    Peer peer;
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
    EXPECT_EQ(input_latency, 128) << "the server's own";
    ASSERT_EQ(driver->start(), kAsioOk);
    EXPECT_TRUE(eventually([&] {
        return peer.connected("tavistro:in_1", "system:capture_1") &&
               peer.connected("tavistro:out_1", "system:playback_1");
    }));
    peer.connect();
    EXPECT_TRUE(eventually([&] { return peer.frames_in_order > many_frames; }));
    EXPECT_TRUE(eventually([&] { return peer.delay_frames == period; }))
        << "that of the loop in the graph, none of the driver's";
    AsioCount64 frames{}, nanoseconds{};
    EXPECT_EQ(driver->getSamplePosition(&frames, &nanoseconds), kAsioOk);
    EXPECT_GT(frames.lo, static_cast<std::uint32_t>(many_frames));

    const std::string count_before = error_message(*driver);
    EXPECT_TRUE(count_before.ends_with(" missed deadlines.")) << count_before;
    Host::held_up = true;
    EXPECT_TRUE(
        eventually([&] { return Host::overloads > 0 && error_message(*driver) != count_before; }));
    EXPECT_EQ(Host::resets, 0);
    EXPECT_EQ(jack_set_buffer_size(peer.handle(), 256), 0);
    EXPECT_TRUE(eventually([] { return Host::resets > 0; }));
    EXPECT_EQ(driver->stop(), kAsioOk);
    const int periods = Host::periods;
    EXPECT_EQ(driver->disposeBuffers(), kAsioOk);
    EXPECT_EQ(driver->Release(), 0U);
    EXPECT_EQ(Host::periods, periods);
    EXPECT_EQ(Host::unordered_halves, 0);
    EXPECT_EQ(realtime_violations().total(), 0U);
}

TEST(JackDriver, LetsGoOfADeadServerAndSaysWhenThereIsNone) {
    JackServer server;
    Host::open_channels();
    AsioDriver* driver = jack::create_jack_driver();
    ASSERT_EQ(driver->init(nullptr), 1) << error_message(*driver);
    ASSERT_EQ(driver->createBuffers(Host::channels, 4, period, &Host::callbacks), kAsioOk);
    ASSERT_EQ(driver->start(), kAsioOk);
    Host::held_up = true;
    ASSERT_TRUE(eventually([] { return Host::inside.load(); }));
    server.kill();  // libjack cancels its thread, which should leave the host first
    EXPECT_TRUE(eventually([] { return Host::resets > 0; }));
    EXPECT_EQ(driver->stop(), kAsioOk);
    EXPECT_FALSE(Host::held_up) << "cancelled inside the host";
    EXPECT_EQ(driver->start(), kAsioHardwareFault);
    EXPECT_EQ(driver->Release(), 0U) << "with buffers";

    AsioDriver* orphan = jack::create_jack_driver();
    EXPECT_EQ(orphan->init(nullptr), 0);
    EXPECT_NE(error_message(*orphan).find("is running"), std::string::npos);
    EXPECT_EQ(orphan->Release(), 0U);
}

}  // namespace
}  // namespace tavistro::test
