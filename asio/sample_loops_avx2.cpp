#include "asio/sample_loops.h"

#include <immintrin.h>

#include <type_traits>

#include "common/simd.h"

namespace tavistro {

namespace {

constexpr std::size_t step = sample_loop_step;

/// Full scale of an integer format.
template <unsigned bits>
constexpr auto scale = static_cast<double>((1LL << (bits - 1)) - 1);

/// Divides integers of at most 24 bits by their full scale, correctly rounded. This equals a double
/// quotient rounded to float, since a double has more than twice the digits of a float.
///
/// The product with the reciprocal is off by less than two units in the last place; the remainder,
/// exact with FMA, corrects it. (P. Markstein, "Computation of elementary functions on the IBM RISC
/// System/6000 processor", IBM J. Res. Dev. 34, 1990)
template <unsigned bits>
TAVISTRO_AVX2 inline __m256 over_full_scale(__m256i integers) noexcept {
    const __m256 full_scale = _mm256_set1_ps(static_cast<float>(scale<bits>));
    const __m256 reciprocal = _mm256_set1_ps(static_cast<float>(1.0 / scale<bits>));
    const __m256 dividend = _mm256_cvtepi32_ps(integers);
    const __m256 estimate = _mm256_mul_ps(dividend, reciprocal);
    const __m256 remainder = _mm256_fnmadd_ps(estimate, full_scale, dividend);
    const __m256 quotient = _mm256_fmadd_ps(remainder, reciprocal, estimate);
    return _mm256_max_ps(quotient, _mm256_set1_ps(-1.0F));
}

/// Divides four 32-bit integers by their full scale in double precision. Products with the rounded
/// reciprocal, 1/(2^31 - 1), round to the same floats as quotients.
TAVISTRO_AVX2 inline __m128 over_full_scale_32(__m128i integers) noexcept {
    const __m256d reciprocal = _mm256_set1_pd(1.0 / scale<32>);
    const __m256d quotient = _mm256_mul_pd(_mm256_cvtepi32_pd(integers), reciprocal);
    return _mm_max_ps(_mm256_cvtpd_ps(quotient), _mm_set1_ps(-1.0F));
}

/// Loads eight samples, clamped to +-1.0. NaN stays NaN: minimum and maximum return the second
/// operand if either is NaN.
TAVISTRO_AVX2 inline __m256 load_limited(const float* from) noexcept {
    return _mm256_max_ps(_mm256_set1_ps(-1.0F),
                         _mm256_min_ps(_mm256_set1_ps(1.0F), _mm256_loadu_ps(from)));
}

/// Multiplies samples by a full scale of at most 24 bits and truncates as if the products were
/// exact; NaN becomes 0x80000000. FMA gives the rounding error of a product: if it was rounded away
/// from zero, the next number towards zero is truncated instead.
template <unsigned bits>
TAVISTRO_AVX2 inline __m256i times_full_scale(const float* from) noexcept {
    const __m256 full_scale = _mm256_set1_ps(static_cast<float>(scale<bits>));
    const __m256 samples = load_limited(from);
    const __m256 product = _mm256_mul_ps(samples, full_scale);
    const __m256 missing = _mm256_fmsub_ps(samples, full_scale, product);
    const __m256 away_from_zero =
        _mm256_cmp_ps(_mm256_mul_ps(missing, product), _mm256_setzero_ps(), _CMP_LT_OQ);
    // The mask is the integer -1.
    const __m256i towards_zero =
        _mm256_add_epi32(_mm256_castps_si256(product), _mm256_castps_si256(away_from_zero));
    return _mm256_cvttps_epi32(_mm256_castsi256_ps(towards_zero));
}

/// The same for 32 bits. For a sample s in 0..1, p = 2^31 * s is exact in a float, and the product
/// is p - s. Truncated, that is p rounded up, minus 1, unless s is 0:
///
///     p is an integer:  p - s is below p by at most 1.
///         s = 0.75             p = 1610612736    p - s = 1610612735.25    result 1610612735
///     p is not:         p - s has the same integer part, since s is smaller than p's fraction:
///                       that is at least p / 2^24, one unit in p's last place, and s = p / 2^31.
///         s = 0x1.000002p-10   p = 2097152.25    p - s = 2097152.249...   result 2097152
///
/// The sign is restored at the end. NaN is not clamped and converts to 0x80000000.
TAVISTRO_AVX2 inline __m256i times_full_scale_32(const float* from) noexcept {
    const __m256 samples = _mm256_loadu_ps(from);
    const __m256 sizes =
        _mm256_min_ps(_mm256_set1_ps(1.0F), _mm256_andnot_ps(_mm256_set1_ps(-0.0F), samples));
    const __m256 above = _mm256_ceil_ps(_mm256_mul_ps(sizes, _mm256_set1_ps(0x1p31F)));
    const __m256 not_zero = _mm256_cmp_ps(sizes, _mm256_setzero_ps(), _CMP_GT_OQ);
    // 2^31 converts to 0x80000000, and 0x80000000 - 1 is the largest integer. The mask is the
    // integer -1.
    const __m256i results =
        _mm256_add_epi32(_mm256_cvttps_epi32(above), _mm256_castps_si256(not_zero));
    return _mm256_sign_epi32(results, _mm256_castps_si256(samples));
}

template <typename Byte>
auto* vector128(Byte* bytes) noexcept {
    if constexpr (std::is_const_v<Byte>)
        return reinterpret_cast<const __m128i*>(bytes);
    else
        return reinterpret_cast<__m128i*>(bytes);
}

TAVISTRO_AVX2 void int16_to_float(const unsigned char* from, float* to,
                                  std::size_t count) noexcept {
    TAVISTRO_UNROLL_4
    for (std::size_t i = 0; i < count; i += step) {
        const __m128i packed = _mm_loadu_si128(vector128(from + 2 * i));
        _mm256_storeu_ps(to + i, over_full_scale<16>(_mm256_cvtepi16_epi32(packed)));
    }
}

TAVISTRO_AVX2 void int24_to_float(const unsigned char* from, float* to,
                                  std::size_t count) noexcept {
    // The second load ends with the eighth sample, so nothing beyond it is read. Each sample goes
    // into the upper three bytes of a word, for a shift down with sign extension.
    const __m256i upper_bytes =
        _mm256_setr_epi8(-1, 0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1, 4, 5, 6, -1, 7,
                         8, 9, -1, 10, 11, 12, -1, 13, 14, 15);
    TAVISTRO_UNROLL_4
    for (std::size_t i = 0; i < count; i += step) {
        const __m128i first = _mm_loadu_si128(vector128(from + 3 * i));
        const __m128i second = _mm_loadu_si128(vector128(from + 3 * i + 8));
        const __m256i words = _mm256_shuffle_epi8(
            _mm256_inserti128_si256(_mm256_castsi128_si256(first), second, 1), upper_bytes);
        _mm256_storeu_ps(to + i, over_full_scale<24>(_mm256_srai_epi32(words, 8)));
    }
}

TAVISTRO_AVX2 void int32_to_float(const unsigned char* from, float* to,
                                  std::size_t count) noexcept {
    TAVISTRO_UNROLL_4
    for (std::size_t i = 0; i < count; i += step) {
        _mm_storeu_ps(to + i, over_full_scale_32(_mm_loadu_si128(vector128(from + 4 * i))));
        _mm_storeu_ps(to + i + 4,
                      over_full_scale_32(_mm_loadu_si128(vector128(from + 4 * i + 16))));
    }
}

TAVISTRO_AVX2 void int16_from_float(unsigned char* to, const float* from,
                                    std::size_t count) noexcept {
    const __m256i lower_bytes =
        _mm256_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1, 0, 1, 4, 5, 8, 9,
                         12, 13, -1, -1, -1, -1, -1, -1, -1, -1);
    TAVISTRO_UNROLL_4
    for (std::size_t i = 0; i < count; i += step) {
        const __m256i halves = _mm256_shuffle_epi8(times_full_scale<16>(from + i), lower_bytes);
        const __m256i packed = _mm256_permute4x64_epi64(halves, 0b1000);
        _mm_storeu_si128(vector128(to + 2 * i), _mm256_castsi256_si128(packed));
    }
}

TAVISTRO_AVX2 void int24_from_float(unsigned char* to, const float* from,
                                    std::size_t count) noexcept {
    const __m256i lower_bytes =
        _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1, 0, 1, 2, 4, 5, 6,
                         8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
    const __m256i used_words = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 7, 7);
    TAVISTRO_UNROLL_4
    for (std::size_t i = 0; i < count; i += step) {
        const __m256i halves = _mm256_shuffle_epi8(times_full_scale<24>(from + i), lower_bytes);
        const __m256i packed = _mm256_permutevar8x32_epi32(halves, used_words);
        _mm_storeu_si128(vector128(to + 3 * i), _mm256_castsi256_si128(packed));
        _mm_storel_epi64(vector128(to + 3 * i + 16), _mm256_extracti128_si256(packed, 1));
    }
}

TAVISTRO_AVX2 void int32_from_float(unsigned char* to, const float* from,
                                    std::size_t count) noexcept {
    TAVISTRO_UNROLL_4
    for (std::size_t i = 0; i < count; i += step)
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(to + 4 * i), times_full_scale_32(from + i));
}

constexpr SampleLoops loops[] = {{int16_to_float, int16_from_float},
                                 {int24_to_float, int24_from_float},
                                 {int32_to_float, int32_from_float}};

}  // namespace

const SampleLoops* fast_sample_loops(std::size_t bytes, SimdLevel level) noexcept {
    return level == SimdLevel::avx2 ? &loops[bytes - 2] : nullptr;
}

}  // namespace tavistro
