// The same methods as in sample_loops_avx2.cpp, which explains them; what differs is said here.
#include <arm_neon.h>

#include <cstdint>

#include "asio/sample_loops.h"

namespace tavistro {

namespace {

constexpr std::size_t step = sample_loop_step;

/// Full scale of an integer format.
template <unsigned bits>
constexpr auto scale = static_cast<double>((std::int64_t{1} << (bits - 1)) - 1);

/// Divides integers of at most 24 bits by their full scale, correctly rounded. Not by a division,
/// which takes small processors some twenty cycles.
template <unsigned bits>
inline float32x4_t over_full_scale(float32x4_t dividend) noexcept {
    const float32x4_t full_scale = vdupq_n_f32(static_cast<float>(scale<bits>));
    const float32x4_t reciprocal = vdupq_n_f32(static_cast<float>(1.0 / scale<bits>));
    const float32x4_t estimate = vmulq_f32(dividend, reciprocal);
    const float32x4_t remainder = vfmsq_f32(dividend, estimate, full_scale);
    return vmaxq_f32(vfmaq_f32(estimate, remainder, reciprocal), vdupq_n_f32(-1.0F));
}

/// Minimum and maximum of NaN and a number are NaN, which converts to 0: as the lower bytes of
/// 0x80000000 are.
template <unsigned bits>
inline int32x4_t times_full_scale(const float* from) noexcept {
    const float32x4_t full_scale = vdupq_n_f32(static_cast<float>(scale<bits>));
    const float32x4_t samples =
        vmaxq_f32(vdupq_n_f32(-1.0F), vminq_f32(vdupq_n_f32(1.0F), vld1q_f32(from)));
    const float32x4_t product = vmulq_f32(samples, full_scale);
    const float32x4_t missing = vfmaq_f32(vnegq_f32(product), samples, full_scale);
    const uint32x4_t away_from_zero = vcltzq_f32(vmulq_f32(missing, product));
    // The mask is the integer -1.
    const uint32x4_t towards_zero = vaddq_u32(vreinterpretq_u32_f32(product), away_from_zero);
    return vcvtq_s32_f32(vreinterpretq_f32_u32(towards_zero));
}

/// Converted without a sign, in which 2^31 has room. NaN is put in at the end.
inline int32x4_t times_full_scale_32(const float* from) noexcept {
    const float32x4_t samples = vld1q_f32(from);
    const float32x4_t sizes = vminq_f32(vdupq_n_f32(1.0F), vabsq_f32(samples));
    const float32x4_t above = vrndpq_f32(vmulq_f32(sizes, vdupq_n_f32(0x1p31F)));
    const uint32x4_t not_zero = vcgtzq_f32(sizes);  // the integer -1
    const int32x4_t results = vreinterpretq_s32_u32(vaddq_u32(vcvtq_u32_f32(above), not_zero));
    const int32x4_t negative = vshrq_n_s32(vreinterpretq_s32_f32(samples), 31);
    const int32x4_t with_sign = vsubq_s32(veorq_s32(results, negative), negative);
    return vbslq_s32(vceqq_f32(samples, samples), with_sign, vdupq_n_s32(INT32_MIN));
}

void int16_to_float(const unsigned char* from, float* to, std::size_t count) noexcept {
    TAVISTRO_UNROLL_4
    for (std::size_t i = 0; i < count; i += step) {
        const int16x8_t packed = vreinterpretq_s16_u8(vld1q_u8(from + 2 * i));
        const int32x4_t first = vmovl_s16(vget_low_s16(packed));
        vst1q_f32(to + i, over_full_scale<16>(vcvtq_f32_s32(first)));
        vst1q_f32(to + i + 4, over_full_scale<16>(vcvtq_f32_s32(vmovl_high_s16(packed))));
    }
}

/// Four samples, each in the upper three bytes of a word, which the conversion divides by 256.
inline float32x4_t int24_words(uint8x16_t bytes, uint8x16_t upper_bytes) noexcept {
    return vcvtq_n_f32_s32(vreinterpretq_s32_u8(vqtbl1q_u8(bytes, upper_bytes)), 8);
}

void int24_to_float(const unsigned char* from, float* to, std::size_t count) noexcept {
    // The second load ends with the eighth sample, so nothing beyond it is read.
    constexpr std::uint8_t none = 255;
    constexpr std::uint8_t first_places[] = {none, 0, 1, 2, none, 3, 4,  5,
                                             none, 6, 7, 8, none, 9, 10, 11};
    const uint8x16_t first_bytes = vld1q_u8(first_places);
    const uint8x16_t second_bytes =  // 4 further; none is still beyond 15
        vqaddq_u8(first_bytes, vdupq_n_u8(4));
    TAVISTRO_UNROLL_4
    for (std::size_t i = 0; i < count; i += step) {
        const float32x4_t first = int24_words(vld1q_u8(from + 3 * i), first_bytes);
        const float32x4_t second = int24_words(vld1q_u8(from + 3 * i + 8), second_bytes);
        vst1q_f32(to + i, over_full_scale<24>(first));
        vst1q_f32(to + i + 4, over_full_scale<24>(second));
    }
}

void int16_from_float(unsigned char* to, const float* from, std::size_t count) noexcept {
    TAVISTRO_UNROLL_4
    for (std::size_t i = 0; i < count; i += step) {
        const int16x4_t first = vmovn_s32(times_full_scale<16>(from + i));
        const int16x8_t packed = vmovn_high_s32(first, times_full_scale<16>(from + i + 4));
        vst1q_u8(to + 2 * i, vreinterpretq_u8_s16(packed));
    }
}

void int24_from_float(unsigned char* to, const float* from, std::size_t count) noexcept {
    constexpr std::uint8_t places[] = {0,  1,  2,  4,  5,  6,  8,  9,  10, 12, 13, 14,
                                       16, 17, 18, 20, 21, 22, 24, 25, 26, 28, 29, 30};
    const uint8x16_t lower_bytes = vld1q_u8(places);
    const uint8x8_t last_bytes = vld1_u8(places + 16);
    TAVISTRO_UNROLL_4
    for (std::size_t i = 0; i < count; i += step) {
        const uint8x16x2_t words{vreinterpretq_u8_s32(times_full_scale<24>(from + i)),
                                 vreinterpretq_u8_s32(times_full_scale<24>(from + i + 4))};
        vst1q_u8(to + 3 * i, vqtbl2q_u8(words, lower_bytes));
        vst1_u8(to + 3 * i + 16, vqtbl2_u8(words, last_bytes));
    }
}

void int32_from_float(unsigned char* to, const float* from, std::size_t count) noexcept {
    TAVISTRO_UNROLL_4
    for (std::size_t i = 0; i < count; i += step / 2)
        vst1q_u8(to + 4 * i, vreinterpretq_u8_s32(times_full_scale_32(from + i)));
}

// The compiler's own loop from 32-bit integers is less than twice as long as one of ours would be.
constexpr SampleLoops loops[] = {{int16_to_float, int16_from_float},
                                 {int24_to_float, int24_from_float},
                                 {nullptr, int32_from_float}};

}  // namespace

const SampleLoops* fast_sample_loops(std::size_t bytes, SimdLevel level) noexcept {
    return level == SimdLevel::neon ? &loops[bytes - 2] : nullptr;
}

}  // namespace tavistro
