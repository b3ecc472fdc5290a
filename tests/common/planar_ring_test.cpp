// Planar rings against a plain reference, bit-exact, at every SIMD level.
#include "common/planar_ring.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "support/simd_levels.h"

namespace tavistro::test {
namespace {

using Rows = std::vector<std::vector<float>>;

std::vector<float> interpolated(const Rows& rows, const RingRead& read, std::size_t frames) {
    std::vector<float> block;
    for (const std::vector<float>& row : rows) {
        for (std::size_t i = 0; i < frames; ++i) {
            const double position = static_cast<double>(i) * read.ratio + read.offset;
            const auto whole = static_cast<std::uint64_t>(position);
            const auto at = [&](std::uint64_t distance) {
                return row[(read.position + std::min(distance, read.available - 1)) % row.size()];
            };
            const float step = at(whole + 1) - at(whole);
            block.push_back(static_cast<float>(static_cast<double>(step) *
                                                   (position - static_cast<double>(whole)) +
                                               static_cast<double>(at(whole))));
        }
    }
    return block;
}

/// Bit-exact: -0.0 differs from 0.0.
bool same(const std::vector<float>& a, const std::vector<float>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), 4 * a.size()) == 0;
}

using PlanarRings = AtSimdLevel;

TEST_P(PlanarRings, StoreAndInterpolateLikeTheReference) {
    std::mt19937 random(1);
    const auto below = [&](std::size_t limit) { return random() % limit; };
    std::uniform_real_distribution<float> level(-1.0F, 1.0F);
    constexpr float edges[] = {0.0F, -0.0F, 1e-40F, -1e-45F, 1.0F, -1.0F};
    const auto sample = [&] { return below(3) == 0 ? edges[below(6)] : level(random); };
    constexpr double ratios[] = {0.9955, 0.999999, 1.0, 1.0 + 0x1p-52, 1.0001, 1.0045};
    for (int round = 0; round < 3000; ++round) {
        const std::size_t channels = 1 + below(4);
        const std::size_t frames = 1 + below(round % 10 == 0 ? 700 : 70);
        const std::size_t capacity = frames + 2 + below(2 * frames);
        PlanarRing ring(channels, capacity, GetParam());
        Rows rows(channels, std::vector<float>(capacity));
        const auto write = [&](std::size_t position, std::size_t count) {
            std::vector<float> block(channels * count);
            std::generate(block.begin(), block.end(), sample);
            ring.write(position, block);
            for (std::size_t i = 0; i < block.size(); ++i)
                rows[i / count][(position + i % count) % capacity] = block[i];
        };
        write(0, capacity);
        write(below(capacity), frames);

        const std::size_t position = below(capacity);
        std::vector<float> block(channels * frames), expected(block.size());
        ring.copy(position, block);
        for (std::size_t i = 0; i < block.size(); ++i)
            expected[i] = rows[i / frames][(position + i % frames) % capacity];
        ASSERT_TRUE(same(block, expected)) << "round " << round;
        const RingRead read{
            .position = position,
            .available = 1 + below(capacity),
            .ratio = ratios[below(std::size(ratios))],
            .offset = below(3) == 0 ? 0x1.fffffffffffffp-1 : (level(random) + 1) / 2};
        ring.interpolate(read, block);
        ASSERT_TRUE(same(block, interpolated(rows, read, frames))) << "round " << round;
    }
    const volatile float denormal = 1e-40F;
    EXPECT_NE(denormal * 1.0F, 0.0F) << "denormals are flushed to zero";
}

INSTANTIATE_TEST_SUITE_P(Levels, PlanarRings, testing::ValuesIn(simd_levels()), simd_level_name);

}  // namespace
}  // namespace tavistro::test
