// The loops over samples that PlanarRing uses, for each instruction set.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/simd.h"

namespace tavistro {

/// Places between the frames of a ring: `fraction` of the way from frame `whole` to the next.
struct RingPositions {
    // Small enough to stay in the first-level cache while every channel uses them.
    static constexpr std::size_t capacity = 128;
    std::int32_t whole[capacity];
    double fraction[capacity];
};

/// Real-time safe. No memory needs alignment; what is written overlaps nothing that is read.
struct RowLoops {
    /// Copies `count` samples in each of `rows` rows, which lie `to_stride` and `from_stride`
    /// samples apart.
    void (*copy)(float* to, std::size_t to_stride, const float* from, std::size_t from_stride,
                 std::size_t rows, std::size_t count) noexcept;
    /// Finds (first + i) * ratio + offset for i below `count`, not above the capacity; whole parts
    /// below 2^31. True only when each of them lies one frame behind the one before.
    bool (*find_positions)(RingPositions& positions, std::int32_t first, std::size_t count,
                           double ratio, double offset) noexcept;
    /// Blends neighbours in each row: to[i] is (from[i + 1] - from[i]) * fraction[i] + from[i],
    /// the difference in float, the rest in double precision, rounded to float.
    void (*blend)(float* to, std::size_t to_stride, const float* from, std::size_t from_stride,
                  std::size_t rows, const double* fraction, std::size_t count) noexcept;
};

/// `level` must be one that the processor can run.
const RowLoops& row_loops(SimdLevel level) noexcept;

extern const RowLoops row_loops_baseline;

/// One blended sample.
inline float blended(float first, float second, double fraction) noexcept {
    return static_cast<float>(static_cast<double>(second - first) * fraction +
                              static_cast<double>(first));
}

}  // namespace tavistro
