#include "drivers/test/raw_samples.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>

namespace tavistro::test {
namespace {

struct Layout {
    std::size_t bytes = 4;
    unsigned bits = 0;  ///< significant bits of an integer, 0 for floating point
    bool known = false;
    bool big_endian = false;
};

Layout layout_of(std::int32_t type) noexcept {
    constexpr std::array<Layout, 12> by_code{{{2, 16, true},
                                              {3, 24, true},
                                              {4, 32, true},
                                              {4, 0, true},
                                              {8, 0, true},
                                              {},
                                              {},
                                              {},
                                              {4, 16, true},
                                              {4, 18, true},
                                              {4, 20, true},
                                              {4, 24, true}}};
    constexpr std::int32_t little_endian_from = 16;
    const auto code = static_cast<std::size_t>(type % little_endian_from);
    if (type < 0 || type >= 2 * little_endian_from || code >= by_code.size()) return {};
    Layout layout = by_code[code];
    layout.big_endian = type < little_endian_from;
    return layout;
}

double full_scale(unsigned bits) noexcept {
    return static_cast<double>((std::int64_t{1} << (bits - 1)) - 1);
}

double decode(const std::uint8_t* sample, const Layout& layout) noexcept {
    if (!layout.known) return 0;
    std::uint64_t word = 0;
    for (std::size_t i = 0; i < layout.bytes; ++i)
        word = word << 8 | sample[layout.big_endian ? i : layout.bytes - 1 - i];
    if (layout.bits != 0) {
        const unsigned unused = 64 - layout.bits;
        const auto value = static_cast<std::int64_t>(word << unused) >> unused;
        return static_cast<double>(value) / full_scale(layout.bits);
    }
    if (layout.bytes == 8) return std::bit_cast<double>(word);
    return static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(word)));
}

void encode(double value, std::uint8_t* sample, const Layout& layout) noexcept {
    std::uint64_t word = 0;
    if (!layout.known) {
        word = 0;
    } else if (layout.bits != 0) {
        const double level = std::clamp(value, -1.0, 1.0) * full_scale(layout.bits);
        word = static_cast<std::uint64_t>(std::llround(level));
    } else if (layout.bytes == 8) {
        word = std::bit_cast<std::uint64_t>(value);
    } else {
        word = std::bit_cast<std::uint32_t>(static_cast<float>(value));
    }
    for (std::size_t i = 0; i < layout.bytes; ++i) {
        sample[layout.big_endian ? layout.bytes - 1 - i : i] =
            static_cast<std::uint8_t>(word >> (8 * i));
    }
}

}  // namespace

std::size_t sample_bytes(std::int32_t type) noexcept {
    return layout_of(type).bytes;
}

void fill_samples(RawSamples samples, std::int32_t type, double value) noexcept {
    const Layout layout = layout_of(type);
    for (std::size_t at = 0; at < samples.size(); at += layout.bytes)
        encode(value, &samples[at], layout);
}

void copy_samples(std::span<const std::uint8_t> from, std::int32_t from_type, RawSamples to,
                  std::int32_t to_type) noexcept {
    if (from_type == to_type) {
        std::ranges::copy(from, to.begin());
        return;
    }
    const Layout source = layout_of(from_type);
    const Layout target = layout_of(to_type);
    const std::size_t count = to.size() / target.bytes;
    for (std::size_t i = 0; i < count; ++i)
        encode(decode(&from[i * source.bytes], source), &to[i * target.bytes], target);
}

}  // namespace tavistro::test
