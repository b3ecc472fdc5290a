// The loops of the sample formats that most drivers use, for processors with AVX2.
#pragma once

#include <cstddef>

namespace tavistro {

/// Samples that one step of these loops takes; `count` is a multiple of it.
inline constexpr std::size_t sample_loop_step = 8;

// Little-endian integers, packed. The results are those of sample_format.h to the bit.

void int16_to_float_avx2(const unsigned char* from, float* to, std::size_t count) noexcept;
void int24_to_float_avx2(const unsigned char* from, float* to, std::size_t count) noexcept;
void int32_to_float_avx2(const unsigned char* from, float* to, std::size_t count) noexcept;
void int16_from_float_avx2(unsigned char* to, const float* from, std::size_t count) noexcept;
void int24_from_float_avx2(unsigned char* to, const float* from, std::size_t count) noexcept;
void int32_from_float_avx2(unsigned char* to, const float* from, std::size_t count) noexcept;

}  // namespace tavistro
