#include <immintrin.h>

#include <cstdint>
#include <cstring>

#include "common/row_loops.h"

namespace tavistro {

namespace {

constexpr std::size_t vector_floats = 8;
constexpr std::size_t vector_doubles = 4;

/// Rows are mostly too short for a call of memcpy to be worth it. The first and the last vector are
/// stored where the row begins and ends, those between where they do not cross a line of the cache,
/// which on some processors takes twice as long; neighbours may overlap.
TAVISTRO_AVX2 void copy(float* to, std::size_t to_stride, const float* from,
                        std::size_t from_stride, std::size_t rows, std::size_t count) noexcept {
    constexpr std::size_t short_row = 256;
    if (count < vector_floats || count > short_row)
        return row_loops_baseline.copy(to, to_stride, from, from_stride, rows, count);
    const std::size_t last = count - vector_floats;
    for (; rows > 0; --rows, to += to_stride, from += from_stride) {
        _mm256_storeu_ps(to, _mm256_loadu_ps(from));
        const std::size_t aligned =
            vector_floats - reinterpret_cast<std::uintptr_t>(to) / sizeof(float) % vector_floats;
        for (std::size_t i = aligned; i < last; i += vector_floats)
            _mm256_storeu_ps(to + i, _mm256_loadu_ps(from + i));
        _mm256_storeu_ps(to + last, _mm256_loadu_ps(from + last));
    }
}

/// Whole steps: up to three positions behind `count` are found, and judged, as well.
TAVISTRO_AVX2 bool find_positions(RingPositions& positions, std::int32_t first, std::size_t count,
                                  double ratio, double offset) noexcept {
    const __m256d ratios = _mm256_set1_pd(ratio);
    const __m256d offsets = _mm256_set1_pd(offset);
    const __m128i onward = _mm_set1_epi32(vector_doubles);
    __m128i frame = _mm_add_epi32(_mm_set1_epi32(first), _mm_setr_epi32(0, 1, 2, 3));
    const auto whole_at_start = static_cast<std::int32_t>(first * ratio + offset);
    __m128i expected = _mm_add_epi32(_mm_set1_epi32(whole_at_start), _mm_setr_epi32(0, 1, 2, 3));
    __m128i deviation = _mm_setzero_si128();
    for (std::size_t i = 0; i < count; i += vector_doubles) {
        const __m256d position =
            _mm256_add_pd(_mm256_mul_pd(_mm256_cvtepi32_pd(frame), ratios), offsets);
        const __m128i whole = _mm256_cvttpd_epi32(position);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(&positions.whole[i]), whole);
        _mm256_storeu_pd(&positions.fraction[i],
                         _mm256_sub_pd(position, _mm256_cvtepi32_pd(whole)));
        deviation = _mm_or_si128(deviation, _mm_xor_si128(whole, expected));
        frame = _mm_add_epi32(frame, onward);
        expected = _mm_add_epi32(expected, onward);
    }
    return _mm_testz_si128(deviation, deviation) != 0;
}

TAVISTRO_AVX2 inline void blend_step(float* to, const float* from,
                                     const double* fraction) noexcept {
    const __m128 first = _mm_loadu_ps(from);
    const __m128 difference = _mm_sub_ps(_mm_loadu_ps(from + 1), first);
    const __m256d way = _mm256_mul_pd(_mm256_cvtps_pd(difference), _mm256_loadu_pd(fraction));
    _mm_storeu_ps(to, _mm256_cvtpd_ps(_mm256_add_pd(way, _mm256_cvtps_pd(first))));
}

TAVISTRO_AVX2 void blend(float* to, std::size_t to_stride, const float* from,
                         std::size_t from_stride, std::size_t rows, const double* fraction,
                         std::size_t count) noexcept {
    if (count < vector_doubles)
        return row_loops_baseline.blend(to, to_stride, from, from_stride, rows, fraction, count);
    // The last step may begin with frames that are blended already.
    const std::size_t last = count - vector_doubles;
    for (; rows > 0; --rows, to += to_stride, from += from_stride) {
        for (std::size_t i = 0; i < last; i += vector_doubles)
            blend_step(to + i, from + i, fraction + i);
        blend_step(to + last, from + last, fraction + last);
    }
}

constexpr RowLoops row_loops_avx2{copy, find_positions, blend};

}  // namespace

const RowLoops& row_loops(SimdLevel level) noexcept {
    return level == SimdLevel::avx2 ? row_loops_avx2 : row_loops_baseline;
}

}  // namespace tavistro
