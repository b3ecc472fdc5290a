// Checksums of everything that computes samples, over pseudo-random input. The expected ones stand
// here and hold for every processor, compiler and SIMD level. A processor gives the NaN that it
// makes itself a sign of its choice, so no input leads to one.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <random>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "asio/sample_format.h"
#include "audio/peak_meters.h"
#include "audio/playback_buffer.h"
#include "common/planar_ring.h"
#include "net/capture_ring.h"
#include "support/simd_levels.h"

namespace tavistro::test {
namespace {

/// FNV-1a of 64 bits, over the bytes in memory: little-endian on every target.
class Checksum {
  public:
    template <typename T>
    void add(std::span<const T> values) {
        for (const auto byte : std::as_bytes(values))
            sum_ = (sum_ ^ static_cast<std::uint64_t>(byte)) * 0x100000001B3;
    }
    template <typename T>
    void add(const T& value) {
        add(std::span<const T>(&value, 1));
    }
    std::string text() const {
        std::ostringstream text;
        text << std::hex << sum_;
        return text.str();
    }

  private:
    std::uint64_t sum_ = 0xCBF29CE484222325;
};

/// The engine's numbers are the same everywhere; the standard's distributions are not.
class Random {
  public:
    std::uint64_t below(std::uint64_t limit) { return engine_() % limit; }
    /// -1 <= x < 1, with all 24 bits in use.
    float sample() { return static_cast<float>(static_cast<std::int32_t>(engine_())) * 0x1p-31F; }
    /// Any finite float, also denormal.
    float any_float() {
        const auto bits = static_cast<std::uint32_t>(engine_());
        return std::bit_cast<float>((bits & 0x7F800000) == 0x7F800000 ? bits & 0x807FFFFF : bits);
    }
    double any_double() {
        const std::uint64_t bits = engine_();
        constexpr std::uint64_t exponent = 0x7FF0000000000000;
        return std::bit_cast<double>((bits & exponent) == exponent ? bits & ~exponent : bits);
    }
    template <typename Make>
    auto many(std::size_t count, Make make) {
        std::vector<decltype(make())> values(count);
        for (auto& value : values)
            value = make();
        return values;
    }
    std::vector<float> samples(std::size_t count) {
        return many(count, [this] { return sample(); });
    }

  private:
    std::mt19937_64 engine_{2};
};

using SampleBits = AtSimdLevel;

TEST_P(SampleBits, OfInterpolation) {
    Random random;
    Checksum checksum;
    for (int round = 0; round < 300; ++round) {
        const std::size_t channels = 1 + random.below(3);
        const std::size_t frames = 1 + random.below(round % 10 == 0 ? 700 : 70);
        const std::size_t capacity = frames + 2 + random.below(2 * frames);
        PlanarRing ring(channels, capacity, GetParam());
        ring.write(0, random.samples(channels * capacity));
        std::vector<float> block(channels * frames);
        ring.interpolate({.position = random.below(capacity),
                          .available = 1 + random.below(capacity),
                          .ratio = 0.9955 + static_cast<double>(random.below(9000)) * 1e-6,
                          .offset = static_cast<double>(random.below(1'000'000)) * 1e-6},
                         block);
        checksum.add(std::span<const float>(block));
    }
    EXPECT_EQ(checksum.text(), "5bba7c3fbcf7e478");
}

TEST_P(SampleBits, OfConversions) {
    Random random;
    Checksum read, written;
    constexpr std::uint32_t codes = 28, float64_msb = 4, float64_lsb = 20;
    for (std::uint32_t code = 0; code < codes; ++code) {
        if (!is_known_sample_type(code)) continue;
        constexpr std::size_t count = 2011;
        // Words of all kinds of integers, and floats and doubles of either byte order.
        const std::size_t bytes = sample_size_bytes(code);
        std::vector<unsigned char> words(count * bytes);
        for (std::size_t i = 0; i < count; ++i) {
            unsigned char* const word = &words[i * bytes];
            if (code == float64_msb || code == float64_lsb) {
                const double value = i % 2 == 0 ? random.any_double() : double{random.sample()};
                std::memcpy(word, &value, bytes);
            } else {
                const float value = i % 2 == 0 ? random.any_float() : random.sample();
                std::memcpy(word, &value, bytes);
            }
            if (code < 16) std::reverse(word, word + bytes);
        }
        std::vector<float> samples(count);
        samples_to_float(words.data(), code, samples, GetParam());
        read.add(std::span<const float>(samples));

        samples = random.many(count, [&] {
            const float scaled = random.sample() * 1.01F;
            return random.below(4) == 0 ? random.any_float() : scaled;
        });
        samples_from_float(words.data(), code, samples, GetParam());
        written.add(std::span<const unsigned char>(words));
    }
    EXPECT_EQ(read.text(), "811379a129550c05");
    EXPECT_EQ(written.text(), "517842dfcb320ff2");
}

TEST(SampleBits, OfMeters) {
    Random random;
    Checksum checksum;
    for (int round = 0; round < 2000; ++round) {
        std::vector<float> block = random.samples(random.below(200));
        const float level = random.sample() * 1.01F;
        for (float& sample : block)
            sample *= level;
        checksum.add(peak_permille(block));
    }
    EXPECT_EQ(checksum.text(), "5c5b68387cb58c0f");
}

/// A device that is slower than the server, then faster, with blocks that come late and in bursts.
TEST(SampleBits, OfPlayback) {
    Random random;
    Checksum checksum;
    constexpr std::uint16_t frames = 64, channels = 2;
    constexpr auto block_samples = std::size_t{frames} * channels;
    PlaybackBuffer buffer;
    buffer.configure({.block_frames = frames,
                      .sample_rate = 48000,
                      .channels = channels,
                      .prebuffer_blocks = 3,
                      .target_queue_depth = 4,
                      .max_queue_blocks = 12});
    PlaybackBlock block;
    block.samples.resize(block_samples);
    std::uint32_t sequence = 0;
    std::uint64_t late = 0, rendered = 0;
    for (std::uint64_t period = 0; period < 6000; ++period) {
        // A block more, or none, every few hundred periods.
        const std::uint64_t due = period % 500 == 499 ? (period < 3000 ? 2 : 0) : 1;
        late += due;
        if (random.below(8) != 0) {
            for (; late > 0; --late) {
                buffer.push_block({.sequence = ++sequence,
                                   .sample_rate = 48000,
                                   .frames = frames,
                                   .channels = channels,
                                   .samples = random.samples(block_samples)});
                buffer.drift().on_sync(std::uint64_t{sequence} * frames);
            }
        }
        buffer.drift().update_drift();
        double ratio = 1.0;
        std::uint64_t fill = 0;
        if (buffer.render_block(block, ratio, fill)) {
            ++rendered;
            checksum.add(std::span<const float>(block.samples));
        }
        checksum.add(ratio);
        checksum.add(fill);
        buffer.drift().add_local_frames(frames);
    }
    EXPECT_GT(rendered, 5000u);
    EXPECT_EQ(checksum.text(), "18d4cf21dd5e4feb");
}

TEST(SampleBits, OfCapture) {
    Random random;
    Checksum checksum;
    constexpr std::uint16_t frames = 96, channels = 3;
    constexpr auto block_samples = std::size_t{frames} * channels;
    CaptureRing ring(channels, 44100, frames, 3, 12);
    std::vector<float> block;
    std::size_t pulled = 0;
    for (int round = 0; round < 4000; ++round) {
        const double ratio = 0.999 + static_cast<double>(random.below(2000)) * 1e-6;
        for (std::uint64_t blocks = random.below(3); blocks > 0; --blocks)
            ring.push(44100, frames, channels, random.samples(block_samples), ratio);
        if (ring.pull(44100, frames, block)) {
            ++pulled;
            checksum.add(std::span<const float>(block));
        }
        checksum.add(ring.fill());
    }
    EXPECT_GT(pulled, 3000u);
    EXPECT_EQ(checksum.text(), "74fbe1a3b8092dcd");
}

INSTANTIATE_TEST_SUITE_P(Levels, SampleBits, testing::ValuesIn(simd_levels()), simd_level_name);

}  // namespace
}  // namespace tavistro::test
