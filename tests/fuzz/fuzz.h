// Shared by the fuzz targets: a check that aborts in every build, and the fuzzer's bytes as a
// stream of values.
#pragma once

#include <algorithm>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace tavistro::fuzz {

[[noreturn]] inline void fail(const char* condition, const char* file, int line) {
    std::fprintf(stderr, "%s:%d: failed: %s\n", file, line, condition);
    std::abort();
}

/// Returns zeros after its end, so that every input is valid.
class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : rest_(data, size) {}

    bool empty() const { return rest_.empty(); }
    template <std::unsigned_integral T = std::uint8_t>
    T take() {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < sizeof(T) && !empty(); ++i, rest_ = rest_.subspan(1))
            value |= std::uint64_t{rest_.front()} << (8 * i);
        return static_cast<T>(value);
    }
    /// Returns 0..limit - 1; takes one byte if that suffices.
    std::uint16_t below(std::uint32_t limit) {
        return static_cast<std::uint16_t>((limit <= 256 ? take() : take<std::uint16_t>()) % limit);
    }
    bool one_in(std::uint32_t chances) { return below(chances) == 1; }
    /// Takes one byte and derives samples of all kinds, including infinities and NaN.
    std::vector<float> samples(std::size_t count) {
        std::uint32_t bits = take() * 0x9E3779B1U;
        std::vector<float> result(count);
        for (float& sample : result)
            sample = std::bit_cast<float>(bits = bits * 1664525U + 1013904223U);
        return result;
    }

  private:
    std::span<const std::uint8_t> rest_;
};

}  // namespace tavistro::fuzz

#define REQUIRE(condition) \
    ((condition) ? void() : tavistro::fuzz::fail(#condition, __FILE__, __LINE__))
