#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <utility>

#include "tools/server/bus_observer.h"
#include "tools/server/round_trip_meter.h"
#include "tools/server/sources.h"

namespace tavistro::server {
namespace {

constexpr StreamFormat format{48000, 128};

using Signal = std::vector<float>;

/// Two seconds of a source.
Signal played(Source& source) {
    Signal signal;
    MixBus bus(format.frames);
    while (signal.size() < 96000) {
        bus.clear();
        source.mix(bus);
        signal.insert(signal.end(), bus.channel(0).begin(), bus.channel(0).end());
    }
    return signal;
}

Signal delayed(const Signal& signal, std::size_t lag) {
    Signal result(lag);
    result.insert(result.end(), signal.begin(), signal.end() - static_cast<std::ptrdiff_t>(lag));
    return result;
}

/// The server's measurement when `hole` blocks are skipped.
RoundTripReport measured(const Signal& sent, const Signal& returned, std::size_t hole = 0) {
    BusObserver observer;
    observer.start({.format = format, .measures = {{.sent = 5, .returned = 3}}});
    MixBus bus(format.frames);
    for (std::size_t block = 0; block < sent.size() / format.frames; ++block) {
        if (block == 100) block += hole;
        const auto at = static_cast<std::ptrdiff_t>(block * format.frames);
        std::copy_n(sent.begin() + at, format.frames, bus.channel(5).begin());
        std::copy_n(returned.begin() + at, format.frames, bus.channel(3).begin());
        observer.push(block, format, bus);
    }
    observer.stop();
    ServerSnapshot snapshot;
    observer.add_to(snapshot);
    return snapshot.measures.at(0).report;
}

const Signal& sent_melody() {
    static const Signal signal = played(*make_melody({.level = 0.5F}, format.sample_rate));
    return signal;
}

TEST(Sources, PlayAtTheirLevelAndFollowARateChange) {
    const auto tone = make_tone({.frequency_hz = 375, .level = 0.5F}, 44100);
    tone->change_rate(format.sample_rate);  // one period per block
    const Signal wave = played(*tone);
    EXPECT_NEAR(wave[32], 0.5, 1e-6);
    EXPECT_NEAR(wave[128 + 96], -0.5, 1e-6);
    EXPECT_NEAR(std::ranges::max(sent_melody()), 0.4, 0.1);
}

TEST(RoundTripMeter, FindsTheLagAndCountsExactBlocksDespiteSkippedBlocks) {
    for (const auto& [lag, hole] : {std::pair(0U, 0U), {1, 0}, {768, 50}, {300 * 128, 0}}) {
        Signal returned = delayed(sent_melody(), lag);
        returned[60000] = std::nextafter(returned[60000], 1.0F);
        const RoundTripReport report = measured(sent_melody(), returned, hole);
        EXPECT_EQ(report.last_lag_frames, lag);
        EXPECT_GT(report.compared_blocks, 360U);
        EXPECT_EQ(report.exact_blocks, report.compared_blocks - 1) << "one sample with a wrong bit";
    }
}

TEST(RoundTripMeter, InterpolatesTheLagAndIgnoresTheSilentStart) {
    // Delayed by 1000.5 frames, and silent until the middle of a window.
    const Signal one_later = delayed(sent_melody(), 1001);
    Signal returned = delayed(sent_melody(), 1000);
    for (std::size_t i = 0; i < returned.size(); ++i)
        returned[i] = i < 20000 ? 0 : std::midpoint(returned[i], one_later[i]);
    const RoundTripReport report = measured(sent_melody(), returned);
    EXPECT_EQ(report.windows, 1U);
    EXPECT_GT(report.correlation_min, 0.9999);
}

TEST(RoundTripMeter, CountsSilentBlocksAtTheKnownLag) {
    Signal sent = sent_melody();
    std::fill(sent.begin() + 48000, sent.end(), 0.0F);
    Signal returned = delayed(sent, 5003);
    std::fill(returned.begin() + 48000, returned.end(), 0.0F);
    const RoundTripReport report = measured(sent, returned);
    EXPECT_EQ(report.silent_blocks, 40U) << "5003 frames, rounded up to blocks";
    EXPECT_LT(report.compared_blocks, 375U) << "excludes blocks that were sent silent";
}

}  // namespace
}  // namespace tavistro::server
