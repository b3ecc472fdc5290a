// The conversions against a plain reference, bit-exact, with odd lengths and unaligned buffers.
#include "asio/sample_format.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <vector>

#include "support/simd_levels.h"

namespace tavistro::test {
namespace {

using Bytes = std::vector<unsigned char>;

struct Format {
    std::uint32_t code;
    std::size_t bytes;
    int bits;  ///< 0: floating point, -1: unknown type
    bool big_endian;

    void append(Bytes& to, std::uint64_t word) const {
        for (std::size_t i = 0; i < bytes; ++i)
            to.push_back(
                static_cast<unsigned char>(word >> (8 * (big_endian ? bytes - 1 - i : i))));
    }
    double scale() const { return std::ldexp(1.0, bits - 1) - 1.0; }
};

constexpr Format formats[] = {
    {0, 2, 16, true},   {1, 3, 24, true},   {2, 4, 32, true},   {3, 4, 0, true},
    {4, 8, 0, true},    {8, 4, 16, true},   {9, 4, 18, true},   {10, 4, 20, true},
    {11, 4, 24, true},  {16, 2, 16, false}, {17, 3, 24, false}, {18, 4, 32, false},
    {19, 4, 0, false},  {20, 8, 0, false},  {24, 4, 16, false}, {25, 4, 18, false},
    {26, 4, 20, false}, {27, 4, 24, false}, {7, 4, -1, false},  {28, 4, -1, false},
};

float clamped(float x) {
    return std::isnan(x) ? x : std::fmax(-1.0F, std::fmin(1.0F, x));
}

/// The sample for a driver's word.
float read_reference(const Format& format, std::uint64_t word) {
    if (format.bits < 0) return 0.0F;
    if (format.bytes == 8) return clamped(static_cast<float>(std::bit_cast<double>(word)));
    const float sample = std::bit_cast<float>(static_cast<std::uint32_t>(word));
    if (format.bits == 0) return format.code == 19 ? sample : clamped(sample);
    const std::int64_t span = std::int64_t{1} << format.bits;
    std::int64_t value = static_cast<std::int64_t>(word) % span;
    if (value >= span / 2) value -= span;
    return clamped(static_cast<float>(static_cast<double>(value) / format.scale()));
}

/// The driver's word for a sample, in the low bytes.
std::uint64_t write_reference(const Format& format, float sample) {
    if (format.bits < 0) return 0;
    if (format.code != 19) sample = clamped(sample);
    if (format.bytes == 8) return std::bit_cast<std::uint64_t>(static_cast<double>(sample));
    if (format.bits == 0) return std::bit_cast<std::uint32_t>(sample);
    if (std::isnan(sample)) return 0x80000000;
    const double scaled = std::trunc(static_cast<double>(sample) * format.scale());
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(scaled));
}

class SampleFormat : public AtSimdLevel {
  protected:
    /// Also expects that nothing is written before or after the samples.
    static void expect_written(const Format& format, std::span<const float> samples) {
        Bytes expected{0xA5};  // the samples start at an odd address
        for (const float sample : samples)
            format.append(expected, write_reference(format, sample));
        expected.push_back(0xA5);
        Bytes written(expected.size(), 0xA5);
        samples_from_float(written.data() + 1, format.code, samples, GetParam());
        ASSERT_TRUE(written == expected) << "type " << format.code << ", " << samples.size();
    }
};

TEST_P(SampleFormat, ReadsEveryTypeLikeTheReference) {
    constexpr std::uint64_t strides[] = {0, 0, 1, 251, 65'521, 0, 0, 0, 281'474'976'710'597};
    for (const Format& format : formats) {
        const std::uint64_t last = ~std::uint64_t{0} >> (64 - 8 * format.bytes);
        std::vector<std::uint64_t> words{last, last / 2, last / 2 + 1, last / 2 + 2};
        for (std::uint64_t word = 0; word <= last - last / 60'000; word += strides[format.bytes])
            words.push_back(word);
        Bytes bytes{0};
        for (const std::uint64_t word : words)
            format.append(bytes, word);
        std::vector<float> read(words.size(), 77.0F);
        samples_to_float(bytes.data() + 1, format.code, read, GetParam());
        for (std::size_t i = 0; i < words.size(); ++i)
            ASSERT_EQ(std::bit_cast<std::uint32_t>(read[i]),
                      std::bit_cast<std::uint32_t>(read_reference(format, words[i])))
                << "type " << format.code << " word " << std::hex << words[i];
        ASSERT_NO_FATAL_FAILURE(expect_written(format, read));
    }
}

TEST_P(SampleFormat, WritesEveryTypeLikeTheReferenceAndNothingBeyond) {
    std::vector<float> samples{1.0F, -1.0F, std::nextafter(1.0F, 2.0F)};
    for (std::uint64_t pattern = 0; pattern <= 0xFFFFFFFF; pattern += 65'521)
        samples.push_back(std::bit_cast<float>(static_cast<std::uint32_t>(pattern)));
    for (int i = -20'000; i <= 20'000; ++i)
        samples.push_back(static_cast<float>(i) / 19'997.0F);
    for (const Format& format : formats) {
        for (const std::size_t count : {std::size_t{1}, std::size_t{63}, samples.size()})
            ASSERT_NO_FATAL_FAILURE(expect_written(format, std::span(samples).first(count)));
        Bytes silenced(3 * format.bytes + 1, 0xA5);
        write_silence(silenced.data(), format.code, 3);
        EXPECT_EQ(std::count(silenced.begin(), silenced.end(), 0), 3 * format.bytes);
    }
}

INSTANTIATE_TEST_SUITE_P(Levels, SampleFormat, testing::ValuesIn(simd_levels()), simd_level_name);

}  // namespace
}  // namespace tavistro::test
