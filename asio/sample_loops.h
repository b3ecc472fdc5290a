// AVX2 loops for the most common sample formats.
#pragma once

#include <cstddef>

namespace tavistro {

/// Samples per loop iteration. Precondition of all loops: `count` is a multiple of it.
inline constexpr std::size_t sample_loop_step = 8;

// Packed little-endian integers. Results are bit-identical to those of the scalar loops.

void int16_to_float_avx2(const unsigned char* from, float* to, std::size_t count) noexcept;
void int24_to_float_avx2(const unsigned char* from, float* to, std::size_t count) noexcept;
void int32_to_float_avx2(const unsigned char* from, float* to, std::size_t count) noexcept;
void int16_from_float_avx2(unsigned char* to, const float* from, std::size_t count) noexcept;
void int24_from_float_avx2(unsigned char* to, const float* from, std::size_t count) noexcept;
void int32_from_float_avx2(unsigned char* to, const float* from, std::size_t count) noexcept;

}  // namespace tavistro
