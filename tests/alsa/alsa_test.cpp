// The driver in a minimal host, on a card whose outputs are connected to its inputs, and in a
// complete engine.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "alsa/test_card.h"
#include "drivers/alsa/alsa_driver.h"
#include "platform/threads.h"
#include "scenarios/rig.h"
#include "support/realtime_guard.h"

namespace tavistro::test {
namespace {

/// The card that the plugin plays, with its settings of the start.
TestCard& new_card() {
    setenv("ALSA_CONFIG_PATH", TAVISTRO_ALSA_CONFIG, 1);  // NOLINT(concurrency-mt-unsafe)
    static void* const plugin = dlopen(TAVISTRO_TEST_PCM, RTLD_NOW);
    auto* const card = static_cast<TestCard*>(dlsym(plugin, TestCard::symbol));
    card->~TestCard();
    return *new (card) TestCard;
}

constexpr double full_scale_24 = 8388607;
constexpr double full_scale_32 = full_scale_24 * 256;  // a float has 24 bits

/// Policy, priority and nice value of the calling thread.
std::array<int, 3> scheduling() {
    int policy = 0;
    sched_param param{};
    pthread_getschedparam(pthread_self(), &policy, &param);
    return {policy, param.sched_priority, getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()))};
}

// The host's callbacks, which have no context. Sends noise that the card's format can represent to
// output 1 and negated to output 0; of a third channel, only the input is open.
struct Host {
    static inline std::vector<AsioBufferInfo> channels;
    static inline std::size_t block;
    static inline float full_scale;  ///< of the card's integers
    static inline std::vector<float> sent, received, received_0;
    static inline std::atomic<int> periods, resets, overloads;
    static inline int stray_frames;         ///< with sound on the third input
    static inline std::atomic<int>* xruns;  ///< to order some after a while; null: none
    static inline std::array<int, 3> thread_scheduling;
    static inline std::string thread_name;

    static constexpr int kept_periods = 300;
    static constexpr int period_of_xruns = 20;
    static constexpr int xrun_count = 3;

    static void reset(std::size_t new_block, double new_full_scale) {
        block = new_block;
        full_scale = static_cast<float>(new_full_scale);
        channels = {{1, 0, {}}, {1, 1, {}}, {0, 0, {}}, {0, 1, {}}};
        periods = resets = overloads = stray_frames = 0;
        for (auto* samples : {&sent, &received, &received_0}) {
            samples->clear();
            samples->reserve(kept_periods * block);
        }
    }
    static float* samples(std::size_t channel, std::int32_t half) {
        return static_cast<float*>(channels[channel].half[half]);
    }
    static void buffer_switch(std::int32_t half, std::int32_t) {
        // Across periods, so that it also guards the driver's code.
        static thread_local std::optional<RealtimeScope> guard;
        if (periods == 0) guard.emplace();
        if (periods == kept_periods - 1) guard.reset();
        for (std::size_t i = 0; i < block && periods < kept_periods; ++i) {
            noise = noise * 1664525 + 1013904223;
            const auto value = static_cast<std::int32_t>(noise) / 256;  // 24 bits
            const double scale = std::min(full_scale / full_scale_24, 1.0);
            const float sample = static_cast<float>(static_cast<int>(value * scale)) *
                                 (full_scale == full_scale_32 ? 256.0F : 1.0F) / full_scale;
            samples(2, half)[i] = -sample;
            samples(3, half)[i] = sample;
            sent.push_back(sample);
            received_0.push_back(samples(0, half)[i]);
            received.push_back(samples(1, half)[i]);
            if (channels.size() > 4 && samples(4, half)[i] != 0) ++stray_frames;
        }
        if (periods == 0) {
            thread_scheduling = scheduling();
            pthread_getname_np(pthread_self(), name.data(), name.size());
        }
        if (periods == period_of_xruns && xruns != nullptr) *xruns = xrun_count;
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
    static inline std::uint32_t noise = 1;
    static inline std::array<char, 16> name;
};

/// A driver object, which is released with it.
class Driver {
  public:
    explicit Driver(const alsa::DriverEntry& entry = alsa::list_drivers({}).front())
        : driver_(alsa::create_alsa_driver(entry)) {}
    Driver(const Driver&) = delete;
    Driver& operator=(const Driver&) = delete;
    ~Driver() { EXPECT_EQ(driver_->Release(), 0U); }

    AsioDriver* operator->() const { return driver_; }
    std::string message() const {
        std::array<char, 256> text{};
        driver_->getErrorMessage(text.data());
        return text.data();
    }
    std::int32_t create_buffers(std::size_t frames) const {
        return driver_->createBuffers(Host::channels.data(),
                                      static_cast<std::int32_t>(Host::channels.size()),
                                      static_cast<std::int32_t>(frames), &Host::callbacks);
    }
    /// Opens it and starts periods.
    void run(std::size_t frames, double full_scale = full_scale_32) const {
        Host::reset(frames, full_scale);
        ASSERT_EQ(driver_->init(nullptr), 1) << message();
        if (channels()[0] > 2) Host::channels.push_back({1, 2, {}});
        ASSERT_EQ(create_buffers(frames), kAsioOk) << message();
        ASSERT_EQ(driver_->start(), kAsioOk) << message();
    }
    std::array<std::int32_t, 2> channels() const {
        std::array<std::int32_t, 2> count{};
        driver_->getChannels(count.data(), &count[1]);
        return count;
    }

  private:
    AsioDriver* const driver_;
};

bool periods_pass(int count = Host::kept_periods) {
    const int before = Host::periods;
    return eventually([=] { return Host::periods >= before + count; });
}

/// How many frames of the input are the output `delay` frames earlier, at the end.
std::size_t frames_in_order(std::size_t delay) {
    std::size_t count = 0;
    for (std::size_t i = Host::received.size(); i-- > delay; ++count) {
        if (Host::received[i] != Host::sent[i - delay] ||
            Host::received_0[i] != -Host::sent[i - delay])
            break;
    }
    return count;
}

TEST(AlsaDriver, ReturnsEverySampleAfterTheBlocksInTheCardsBuffer) {
    struct {
        snd_pcm_format_t format;
        double full_scale;
        unsigned channels, periods;
    } const cards[] = {{SND_PCM_FORMAT_S16_LE, 32767, 3, 2},
                       {SND_PCM_FORMAT_S16_LE, 32767, 3, 3},
                       {SND_PCM_FORMAT_S24_3LE, full_scale_24, 3, 2},
                       {SND_PCM_FORMAT_S24_LE, 8388608, 2, 2},  // through ALSA's conversion
                       {SND_PCM_FORMAT_S32_LE, full_scale_32, 3, 2},
                       {SND_PCM_FORMAT_S32_BE, full_scale_32, 3, 2},
                       {SND_PCM_FORMAT_FLOAT_LE, full_scale_24, 3, 2}};
    for (const auto& [format, full_scale, channels, periods] : cards) {
        SCOPED_TRACE(std::string(snd_pcm_format_name(format)) + " " + std::to_string(periods));
        TestCard& card = new_card();
        card.format = format;
        card.outputs = card.inputs = channels;
        card.fewest_periods = periods;
        const Driver driver;
        ASSERT_NO_FATAL_FAILURE(driver.run(128, full_scale));
        const auto count = static_cast<std::int32_t>(channels);
        EXPECT_EQ(driver.channels(), (std::array{count, count}));
        EXPECT_EQ(driver->canSampleRate(96000), kAsioNoClock);
        std::int32_t input_latency = 0, output_latency = 0;
        EXPECT_EQ(driver->getLatencies(&input_latency, &output_latency), kAsioOk);
        EXPECT_TRUE(periods_pass());
        AsioCount64 frames{}, nanoseconds{};
        EXPECT_EQ(driver->getSamplePosition(&frames, &nanoseconds), kAsioOk);
        EXPECT_GT(frames.lo, 128U * (Host::kept_periods - 2));
        EXPECT_EQ(driver->stop(), kAsioOk);
        const std::size_t delay = std::size_t{128} * periods;
        EXPECT_EQ(frames_in_order(delay), Host::sent.size() - delay);
        EXPECT_EQ(Host::stray_frames, 0);
        EXPECT_EQ(input_latency, 128);
        EXPECT_EQ(input_latency + output_latency, static_cast<std::int32_t>(delay));
        EXPECT_EQ(Host::overloads + Host::resets, 0) << driver.message();
        // Again, with the same buffers.
        const int before = Host::periods;
        EXPECT_EQ(driver->start(), kAsioOk);
        EXPECT_TRUE(periods_pass(10));
        EXPECT_EQ(driver->stop(), kAsioOk);
        EXPECT_GT(Host::periods, before);
    }
    EXPECT_EQ(realtime_violations().total(), 0U);
    EXPECT_STREQ(Host::name.data(), "tav-alsa");
    std::array<int, 3> granted{};
    std::thread([&] {
        const platform::ScopedThreadRole role(platform::ThreadRole::audio_device);
        granted = scheduling();
    }).join();
    if (granted == scheduling())
        std::cout << "The system grants no priority: the next line shows nothing.\n";
    EXPECT_EQ(Host::thread_scheduling, granted);
}

TEST(AlsaDriver, OffersWhatTheCardDoes) {
    struct {
        std::vector<unsigned> blocks;
        std::array<std::int32_t, 4> sizes;  // minimum, maximum, preferred, granularity
        std::int32_t refused;
        const char* reason;
    } const cards[] = {
        {{64, 128, 256, 512},
         {64, 512, 128, -1},
         50,
         "ALSA has no blocks of 50 frames: it has 64 to 512 frames by doubling."},
        {{48, 96, 144, 192},
         {48, 192, 144, 48},
         100,
         "ALSA has no blocks of 100 frames: it has 48 to 192 frames in steps of 48."},
        {{256}, {256, 256, 256, 0}, 128, "ALSA has no blocks of 128 frames: it has 256 frames."}};
    for (const auto& [blocks, expected, refused, reason] : cards) {
        SCOPED_TRACE(reason);
        TestCard& card = new_card();
        card.blocks = blocks;
        const Driver driver;
        ASSERT_EQ(driver->init(nullptr), 1) << driver.message();
        double rate = 0;
        EXPECT_EQ(driver->getSampleRate(&rate), kAsioOk);
        EXPECT_EQ(rate, 48000);
        EXPECT_EQ(driver->setSampleRate(96000), kAsioNoClock);
        EXPECT_EQ(driver.message(), "ALSA does not run at 96000 Hz, but at 44100, 48000 Hz.");
        EXPECT_EQ(driver->setSampleRate(44100), kAsioOk);
        EXPECT_EQ(driver->getSampleRate(&rate), kAsioOk);
        EXPECT_EQ(rate, 44100);
        std::array<std::int32_t, 4> sizes{};
        EXPECT_EQ(driver->getBufferSize(sizes.data(), &sizes[1], &sizes[2], &sizes[3]), kAsioOk);
        EXPECT_EQ(sizes, expected);
        Host::reset(128, 32767);
        EXPECT_EQ(driver.create_buffers(static_cast<std::size_t>(refused)), kAsioInvalidMode);
        EXPECT_EQ(driver.message(), reason);
        EXPECT_EQ(driver.create_buffers(blocks.front()), kAsioOk) << driver.message();
        EXPECT_EQ(driver->disposeBuffers(), kAsioOk);
        Host::channels.push_back(Host::channels.front());
        EXPECT_EQ(driver.create_buffers(blocks.front()), kAsioInvalidParameter) << "twice";
    }
}

TEST(AlsaDriver, TakesTwoChannelsOfADeviceWithAnyNumber) {
    new_card().any_channels = true;
    const Driver driver;
    ASSERT_NO_FATAL_FAILURE(driver.run(128));
    EXPECT_EQ(driver.channels(), (std::array{2, 2}));
    EXPECT_TRUE(periods_pass());
}

TEST(AlsaDriver, PlaysWithoutInputsAndRecordsWithoutOutputs) {
    for (const bool plays : {true, false}) {
        TestCard& card = new_card();
        (plays ? card.inputs : card.outputs) = 0;
        const Driver driver;
        ASSERT_NO_FATAL_FAILURE(driver.run(128));
        EXPECT_EQ(driver.channels(), (std::array{2, 2}));
        EXPECT_TRUE(periods_pass());
        EXPECT_EQ(driver->stop(), kAsioOk);
        const auto silent = std::ranges::count(Host::received, 0.0F);
        EXPECT_EQ(silent, plays ? std::ssize(Host::received) : 0);
        EXPECT_EQ(card.frames_with_sound > 12800, plays);
    }
}

TEST(AlsaDriver, GoesOnAfterXruns) {
    TestCard& card = new_card();
    const Driver driver;
    Host::xruns = &card.xruns_to_come;
    ASSERT_NO_FATAL_FAILURE(driver.run(128));
    EXPECT_TRUE(periods_pass());
    Host::xruns = nullptr;
    EXPECT_EQ(driver->stop(), kAsioOk);
    EXPECT_EQ(driver.message(), "3 missed deadlines.");
    EXPECT_EQ(Host::overloads, Host::xrun_count);
    EXPECT_EQ(Host::resets, 0);
    constexpr int silent_periods = 2;  // the card's buffer
    constexpr int periods = Host::kept_periods - Host::period_of_xruns - 1 - silent_periods;
    EXPECT_EQ(frames_in_order(256), std::size_t{128} * periods)
        << "the delay is the same afterwards";
    EXPECT_EQ(realtime_violations().total(), 0U);
}

TEST(AlsaDriver, AsksForAResetUntilItIsStoppedWhenTheCardIsGoneOrStandsStill) {
    for (const bool gone : {true, false}) {
        TestCard& card = new_card();
        card.has_clock = true;
        {
            const Driver driver;
            ASSERT_NO_FATAL_FAILURE(driver.run(128));
            EXPECT_TRUE(periods_pass(10));
            EXPECT_EQ(driver->stop(), kAsioOk);
            EXPECT_EQ(driver->start(), kAsioOk);
            EXPECT_TRUE(periods_pass(10));
            (gone ? card.present : card.stalled) = !gone;
            EXPECT_TRUE(eventually([] { return Host::resets >= 2; }));
            EXPECT_EQ(driver->stop(), kAsioOk);
            EXPECT_EQ(driver->start(), gone ? kAsioHardwareFault : kAsioOk);
        }
        if (gone) {
            const Driver driver;
            EXPECT_EQ(driver->init(nullptr), 0);
            EXPECT_EQ(driver.message(), "ALSA is not connected.");
        }
        card.present = true;
        card.stalled = false;
        const Driver driver;
        ASSERT_NO_FATAL_FAILURE(driver.run(128));
        EXPECT_TRUE(periods_pass(10));
    }
}

TEST(AlsaDriver, SaysThatACardIsInUse) {
    TestCard& card = new_card();
    const Driver driver;
    ASSERT_NO_FATAL_FAILURE(driver.run(128));
    const Driver second;
    EXPECT_EQ(second->init(nullptr), 0);
    EXPECT_EQ(second.message(), "ALSA is in use by another program.");
    EXPECT_EQ(driver->disposeBuffers(), kAsioOk);
    card.busy = true;
    EXPECT_EQ(driver.create_buffers(128), kAsioHardwareFault);
    EXPECT_EQ(driver.message(), "ALSA is in use by another program.");
}

TEST(AlsaEngine, PlaysAgainWhenTheCardIsBack) {
    TestCard& card = new_card();
    card.has_clock = true;
    card.drift_ppm = 200;
    Rig rig{with_tune, "loopback_device = 0\n[asio]\ndriver_name = ALSA\n"};
    ASSERT_TRUE(eventually([&] { return rig.engine.runs_at(48000, 128); }));
    EXPECT_TRUE(rig.sounds(2)) << "state " << rig.engine.state().state;
    card.present = false;
    EXPECT_TRUE(eventually([&] { return !rig.engine.runs(); }));
    card.present = true;
    EXPECT_TRUE(eventually([&] { return rig.engine.runs_at(48000, 128); }));
    EXPECT_TRUE(rig.sounds(2)) << "state " << rig.engine.state().state;
}

}  // namespace
}  // namespace tavistro::test
