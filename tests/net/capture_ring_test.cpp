// The capture ring: bit-exact at the target fill, limited read ratio elsewhere.
#include "net/capture_ring.h"

#include <gtest/gtest.h>

#include "net/net_inputs.h"

namespace tavistro::test {
namespace {

constexpr std::uint16_t frames = 128;

/// Feeds two continuous ramps; the second channel is one block ahead of the first.
struct Feeder {
    CaptureRing ring{2, test_rate, frames, 2, 10};
    float next = 0.0F;
    std::vector<float> block;

    void push_blocks(int count, double rate_ratio) {
        for (; count > 0; --count, next += frames)
            ring.push(test_rate, frames, 2, ramp(2 * frames, next), rate_ratio);
    }
};

TEST(CaptureRing, StreamIsContinuousAcrossTheWrapAndExactAtTheTargetFill) {
    for (const auto& [rate_ratio, tolerance] : {std::pair(1.0, 0.0), {1.003, 0.004}}) {
        Feeder feeder;
        float previous = -1.0F;
        feeder.push_blocks(2, rate_ratio);
        for (int i = 0; i < 40; ++i, feeder.push_blocks(1, rate_ratio)) {
            ASSERT_TRUE(feeder.ring.pull(test_rate, frames, feeder.block));
            for (std::size_t k = 0; k < frames; previous = feeder.block[k++]) {
                ASSERT_NEAR(feeder.block[k] - previous, rate_ratio, tolerance) << k << " of " << i;
                ASSERT_NEAR(feeder.block[frames + k] - feeder.block[k], frames, tolerance);
            }
        }
    }
}

TEST(CaptureRing, ReadRatioStaysWithinLimits) {
    const struct {
        int blocks;
        double rate_ratio, read_ratio;
    } cases[] = {{2, 1.0, 1.0},     {6, 1.0, 1.0007},   {2, 0.998, 0.998},
                 {2, 1.01, 1.0045}, {2, 0.951, 0.9955}, {2, 1.06, 1.0}};
    for (const auto& c : cases) {
        Feeder feeder;
        feeder.push_blocks(c.blocks, c.rate_ratio);
        ASSERT_TRUE(feeder.ring.pull(test_rate, frames, feeder.block));
        // On this ramp a sample equals its read position.
        EXPECT_FLOAT_EQ(feeder.block[frames - 1], static_cast<float>((frames - 1) * c.read_ratio));
    }
}

TEST(CaptureRing, RejectsOtherFormatsAndDropsTheOldestFrames) {
    CaptureRing ring(1, test_rate, 1, 2, 3);
    std::vector<float> block;
    for (const float sample : {5.0F, 6.0F}) {
        ring.push(test_rate, 1, 1, std::vector{sample}, 1.0);
        EXPECT_FALSE(ring.pull(test_rate, 1, block)) << "two frames are lookahead";
    }
    ring.push(44100, 1, 1, std::vector{9.0F}, 1.0);
    ring.push(test_rate, 1, 2, ramp(2), 1.0);
    ring.push(test_rate, 1, 1, ramp(2), 1.0);
    EXPECT_EQ(ring.fill(), 2U) << "blocks in another format are dropped";
    for (const float sample : {7.0F, 8.0F})
        ring.push(test_rate, 1, 1, std::vector{sample}, 1.0);
    EXPECT_FALSE(ring.pull(44100, 1, block) || ring.pull(test_rate, 2, block));
    EXPECT_TRUE(ring.pull(test_rate, 1, block));
    EXPECT_EQ(block, std::vector{6.0F});
    CaptureRing().push(0, 0, 0, {}, 1.0);  // without a format: must not divide by 0
}

}  // namespace
}  // namespace tavistro::test
