// The driver with PipeWire's libjack, as in jack_test.cpp.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "jack/jack_host.h"
#include "jack/jack_server.h"
#include "scenarios/rig.h"
#include "support/pipewire_server.h"

/// For the address sanitizer: PipeWire's libraries keep what belonged to a client after its end.
extern "C" [[gnu::visibility("default")]] const char* __lsan_default_suppressions() {
    return "leak:pipewire-0.3/jack/libjack.so\nleak:libpipewire-0.3.so\n";
}

namespace tavistro::test {
namespace {

using Client = std::unique_ptr<jack_client_t, int (*)(jack_client_t*)>;

/// A client that lets others change the period.
Client open_client(const std::string& wishes = {}) {
    setenv("PIPEWIRE_PROPS", ("{ node.lock-quantum = false " + wishes + " }").c_str(), 1);
    Client client = open_jack_client();
    unsetenv("PIPEWIRE_PROPS");
    return client;
}

void wait_for_sink() {
    jack_set_error_function([](const char*) {});
    jack_set_info_function([](const char*) {});
    EXPECT_TRUE(eventually([] {
        const Client client = open_jack_client();
        return client != nullptr && jack_port_by_name(client.get(), "sink:playback_FL") != nullptr;
    })) << "no PipeWire";
}

/// A client that passes its input on, since PipeWire is silent between ports of one client.
class Cable {
  public:
    Cable(const char* from, const char* to)
        : in_(jack_port_register(client_.get(), "in", JACK_DEFAULT_AUDIO_TYPE, JackPortIsInput, 0)),
          out_(jack_port_register(client_.get(), "out", JACK_DEFAULT_AUDIO_TYPE, JackPortIsOutput,
                                  0)) {
        jack_set_process_callback(
            client_.get(),
            [](jack_nframes_t frames, void* cable) {
                const auto& self = *static_cast<Cable*>(cable);
                std::memcpy(jack_port_get_buffer(self.out_, frames),
                            jack_port_get_buffer(self.in_, frames), frames * sizeof(float));
                return 0;
            },
            this);
        EXPECT_EQ(jack_activate(client_.get()), 0);
        EXPECT_EQ(jack_connect(client_.get(), from, jack_port_name(in_)), 0);
        EXPECT_EQ(jack_connect(client_.get(), jack_port_name(out_), to), 0);
    }

  private:
    Client client_ = open_client();
    jack_port_t* in_;
    jack_port_t* out_;
};

/// Another program on the same sink that asks for this period.
auto open_demanding_client(int frames) {
    auto client = open_client("node.latency = " + std::to_string(frames) + "/48000");
    jack_set_process_callback(
        client.get(), [](jack_nframes_t, void*) { return 0; }, nullptr);
    jack_port_t* port =
        jack_port_register(client.get(), "out", JACK_DEFAULT_AUDIO_TYPE, JackPortIsOutput, 0);
    EXPECT_EQ(jack_activate(client.get()), 0);
    EXPECT_EQ(jack_connect(client.get(), jack_port_name(port), "sink:playback_FL"), 0);
    return client;
}

jack_nframes_t capture_latency(const char* port) {
    const auto client = open_client();
    jack_latency_range_t range{};
    jack_port_get_latency_range(jack_port_by_name(client.get(), port), JackCaptureLatency, &range);
    return range.max;
}

TEST(PipeWire, GivesTheBlockAsPeriodAndMayChangeItAtAnyTime) {
    const PipeWireServer server(TAVISTRO_PIPEWIRE_CONFIG);
    wait_for_sink();
    AsioDriver* driver = jack::create_jack_driver();
    ASSERT_EQ(driver->init(nullptr), 1) << error_message(*driver);
    EXPECT_EQ(driver->setSampleRate(44100), kAsioNoClock);
    EXPECT_EQ(error_message(*driver),
              "PipeWire runs at 48000 Hz, not at 44100: pw-metadata -n settings 0 "
              "clock.force-rate 44100 changes it.");
    EXPECT_EQ(driver->setSampleRate(48000), kAsioOk);
    ASSERT_EQ(Host::open_channels(*driver, 128), kAsioOk);
    Host::expect_period(128);
    ASSERT_EQ(driver->start(), kAsioOk);
    server.force_quantum(64);
    EXPECT_TRUE(eventually([] { return capture_latency("tavistro:out_1") == 64; }))
        << "of the delay for blocks of two periods";
    server.force_quantum(0);
    const Cable cable("tavistro:out_18", "tavistro:in_18");
    EXPECT_TRUE(loops(5000));
    for (const int frames : {64, 256, 1024}) {
        server.force_quantum(frames);
        Host::expect_period(static_cast<std::size_t>(frames));
        EXPECT_TRUE(loops(5000)) << frames;
    }
    server.force_quantum(0);
    Host::expect_period(128);
    EXPECT_TRUE(loops(5000)) << "back to the driver's own";
    {
        const auto other = open_demanding_client(64);
        Host::expect_period(64);
        EXPECT_TRUE(loops(5000));
    }
    Host::expect_period(128);
    EXPECT_TRUE(loops(5000)) << "without the other program";
    EXPECT_EQ(Host::resets, 0);
    EXPECT_EQ(std::getenv("PIPEWIRE_PROPS"), nullptr);
    EXPECT_EQ(driver->Release(), 0U);
    EXPECT_EQ(Host::unordered_halves, 0);
}

TEST(PipeWire, LeavesAnEngineRunningThroughEveryChange) {
    const PipeWireServer server(TAVISTRO_PIPEWIRE_CONFIG);
    wait_for_sink();
    Rig rig{with_tune,
            "loopback_device = 0\n[asio]\ndriver_name = JACK\n[latency]\n"
            "client_latency_blocks = 16\n"};
    ASSERT_TRUE(eventually([&] { return rig.engine.runs_at(48000, 128); }));
    const Cable cable("tavistro:out_1", "tavistro:in_1");
    EXPECT_TRUE(rig.sounds(2)) << "state " << rig.engine.state().state;
    const std::uint64_t events = rig.engine.state().next_event_sequence;
    for (const int frames : {64, 256, 1024, 0}) {
        server.force_quantum(frames);
        EXPECT_TRUE(rig.sounds(2)) << frames;
        EXPECT_TRUE(rig.engine.runs()) << frames;
    }
    EXPECT_EQ(rig.engine.state().next_event_sequence, events) << "the device was reopened";
}

}  // namespace
}  // namespace tavistro::test
