#include "tools/server/round_trip_meter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "tools/server/bus_observer.h"
#include "tools/server/sources.h"

namespace tavistro::server {
namespace {

constexpr StreamFormat format{48000, 128};
constexpr std::size_t blocks_per_window = 375;

using Signal = std::vector<float>;

Signal played(Source& source, std::size_t blocks) {
    MixBus bus(format.frames);
    Signal signal;
    for (std::size_t i = 0; i < blocks; ++i) {
        bus.clear();
        source.mix(bus);
        const auto block = bus.channel(0);
        signal.insert(signal.end(), block.begin(), block.end());
    }
    return signal;
}

/// Delay that begins with `delay` and grows by `slope` frames per frame, read between the samples:
/// exact where it is a whole number.
Signal delayed(const Signal& signal, double delay, double slope = 0) {
    Signal result(signal.size());
    for (std::size_t i = 0; i < result.size(); ++i) {
        const double at = static_cast<double>(i) * (1 - slope) - delay;
        if (at < 0) continue;
        const auto below = static_cast<std::size_t>(at);
        const double part = at - std::floor(at);
        const float next = part > 0 ? signal[below + 1] : 0;
        result[i] = static_cast<float>(signal[below] * (1 - part) + next * part);
    }
    return result;
}

RoundTripReport measured(const Signal& sent, const Signal& returned) {
    RoundTripMeter meter(format);
    for (std::size_t at = 0; at + format.frames <= sent.size(); at += format.frames) {
        meter.feed(std::span(sent).subspan(at, format.frames),
                   std::span(returned).subspan(at, format.frames));
    }
    return meter.report();
}

const Signal& sent_melody() {
    static const Signal signal =
        played(*make_melody({.level = 0.5F}, format.sample_rate), 2 * blocks_per_window);
    return signal;
}

TEST(Sources, PlayAtTheirLevelAndTheNewRate) {
    const auto tone = make_tone({.frequency_hz = 375, .level = 0.5F}, 44100);
    tone->change_rate(format.sample_rate);  // a period is a block
    const Signal wave = played(*tone, 2);
    EXPECT_NEAR(wave[32], 0.5, 1e-6);
    EXPECT_NEAR(wave[128 + 96], -0.5, 1e-6);
    EXPECT_NEAR(std::ranges::max(sent_melody()), 0.4, 0.1);
}

TEST(RoundTripMeter, FindsAnyLagAndWhatCameBackExactly) {
    for (const std::uint32_t lag : {0U, 1U, 777U, 300U * 128}) {
        Signal returned = delayed(sent_melody(), lag);
        returned[90000] = std::nextafter(returned[90000], 1.0F);
        const RoundTripReport report = measured(sent_melody(), returned);
        EXPECT_EQ(report.last_lag_frames, lag);
        EXPECT_GT(report.correlation_max, 0.9999);
        EXPECT_GT(report.compared_blocks, blocks_per_window);
        EXPECT_EQ(report.exact_blocks, report.compared_blocks - 1) << "one wrong bit, one block";
        EXPECT_EQ(report.silent_blocks, 0U) << "before the lag is over nothing can come back";
    }
}

TEST(RoundTripMeter, LooksBetweenFramesAndPastTheBeginning) {
    // Half a frame later, and silent until something comes back in the middle of a window.
    Signal returned = delayed(sent_melody(), 1000.5);
    std::fill_n(returned.begin(), 20000, 0.0F);
    const RoundTripReport report = measured(sent_melody(), returned);
    EXPECT_EQ(report.windows, 1U);
    EXPECT_GT(report.correlation_min, 0.9999);
    EXPECT_GT(report.silent_blocks, 0U);
}

TEST(RoundTripMeter, FollowsASlowlyMovingLag) {
    const RoundTripReport report = measured(sent_melody(), delayed(sent_melody(), 1000, 300e-6));
    ASSERT_TRUE(report.last_lag_frames);
    EXPECT_NEAR(static_cast<double>(*report.last_lag_frames), 1000 + 1.5 * 48000 * 300e-6, 10);
    EXPECT_GT(report.correlation_min, 0.999);
    EXPECT_LT(report.exact_blocks, report.compared_blocks / 10);
}

TEST(RoundTripMeter, CountsWhatIsSentAndComesBackSilentAtTheLagItKnows) {
    Signal sent = sent_melody();
    const auto second = static_cast<std::ptrdiff_t>(blocks_per_window * format.frames);
    std::fill(sent.begin() + second, sent.end(), 0.0F);
    Signal returned = delayed(sent, 5003);
    std::fill(returned.begin() + second, returned.end(), 0.0F);
    EXPECT_EQ(measured(sent, returned).silent_blocks, 40U) << "5003 frames were on their way";

    // A click that nothing was sent for is no comparison.
    returned = delayed(sent, 30 * 128);
    returned.back() = 0.001F;
    const RoundTripReport report = measured(sent, returned);
    EXPECT_EQ(report.compared_blocks, blocks_per_window);
    EXPECT_EQ(report.exact_blocks, blocks_per_window);
}

TEST(RoundTripMeter, TakesNoiseForNoAnswer) {
    Signal returned = delayed(sent_melody(), 100);
    std::minstd_rand random;
    for (std::size_t i = returned.size() / 2; i < returned.size(); ++i)
        returned[i] = static_cast<float>(random()) * 0x1p-30F - 1.0F;
    EXPECT_EQ(measured(sent_melody(), returned).windows, 1U);
}

TEST(BusObserver, MeasuresAcrossAHoleWithoutMixingItsSides) {
    const Signal returned = delayed(sent_melody(), 768);
    BusObserver observer;
    ASSERT_EQ(observer.start({.format = format, .measures = {{.sent = 5, .returned = 3}}}), "");
    MixBus bus(format.frames);
    for (std::size_t block = 0; block < 600; ++block) {
        if (block == 100) block += 50;
        const auto at = static_cast<std::ptrdiff_t>(block * format.frames);
        std::copy_n(sent_melody().begin() + at, format.frames, bus.channel(5).begin());
        std::copy_n(returned.begin() + at, format.frames, bus.channel(3).begin());
        observer.push(block, format, bus);
    }
    observer.stop();
    ServerSnapshot snapshot;
    observer.add_to(snapshot);
    const RoundTripReport& report = snapshot.measures.at(0).report;
    EXPECT_EQ(report.last_lag_frames, 768U);
    EXPECT_GT(report.compared_blocks, blocks_per_window - 10);
    EXPECT_EQ(report.exact_blocks, report.compared_blocks);
}

}  // namespace
}  // namespace tavistro::server
