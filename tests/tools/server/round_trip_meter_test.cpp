#include "tools/server/round_trip_meter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "tools/server/sources.h"

namespace tavistro::server {
namespace {

constexpr StreamFormat format{48000, 128};
constexpr std::size_t blocks_per_window = 375;

using Signal = std::vector<float>;

Signal melody(std::size_t blocks) {
    const auto source = make_melody({.channel = 0, .level = 0.5F}, format.sample_rate);
    MixBus bus(format.frames);
    Signal signal;
    for (std::size_t i = 0; i < blocks; ++i) {
        bus.clear();
        source->mix(bus);
        const auto block = bus.channel(0);
        signal.insert(signal.end(), block.begin(), block.end());
    }
    return signal;
}

/// Delay that begins with `delay` and grows by `slope` frames per frame, read between the samples:
/// exact where it is a whole number.
Signal delayed(const Signal& signal, double delay, double slope = 0, float gain = 1) {
    Signal result(signal.size());
    for (std::size_t i = 0; i < result.size(); ++i) {
        const double at = static_cast<double>(i) * (1 - slope) - delay;
        if (at < 0) continue;
        const auto below = static_cast<std::size_t>(at);
        const double part = at - std::floor(at);
        const float next = part > 0 ? signal[below + 1] : 0;
        result[i] = gain * static_cast<float>(signal[below] * (1 - part) + next * part);
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
    static const Signal signal = melody(2 * blocks_per_window);
    return signal;
}

TEST(RoundTripMeter, FindsAnyLagAndWhatCameBackExactly) {
    struct Case {
        std::uint32_t lag;
        float gain;
        bool exact;
    };
    for (const auto& [lag, gain, exact] :
         {Case{0, 1, true}, Case{1, 1, true}, Case{768, 1, true}, Case{777, 1, true},
          Case{5003, 0.5F, false}, Case{300 * 128, 1, true}}) {
        SCOPED_TRACE(lag);
        const RoundTripReport report =
            measured(sent_melody(), delayed(sent_melody(), lag, 0, gain));
        ASSERT_EQ(report.last_lag_frames, lag);
        EXPECT_GT(report.correlation_max, 0.9999);
        EXPECT_GT(report.compared_blocks, blocks_per_window);
        EXPECT_EQ(report.exact_blocks, exact ? report.compared_blocks : 0U);
        EXPECT_EQ(report.silent_blocks, 0U) << "before the lag is over nothing can come back";
    }
    Signal returned = delayed(sent_melody(), 768);
    returned[90000] = std::nextafter(returned[90000], 1.0F);
    const RoundTripReport report = measured(sent_melody(), returned);
    EXPECT_EQ(report.exact_blocks, report.compared_blocks - 1) << "one wrong bit, one block";
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

TEST(RoundTripMeter, SaysWhenNothingOrSomethingElseComesBack) {
    const Signal silence(sent_melody().size());
    const RoundTripReport nothing = measured(sent_melody(), silence);
    EXPECT_FALSE(nothing.last_lag_frames);
    EXPECT_EQ(nothing.silent_blocks, 2 * blocks_per_window);

    Signal noise(sent_melody().size());
    std::minstd_rand random;
    for (float& sample : noise)
        sample = static_cast<float>(random()) * 0x1p-31F - 0.5F;
    const RoundTripReport other = measured(sent_melody(), noise);
    EXPECT_FALSE(other.last_lag_frames);
    EXPECT_EQ(other.exact_blocks, 0U);
}

}  // namespace
}  // namespace tavistro::server
