// Faster loops for the most common sample formats, where the target's processor has them.
#pragma once

#include <cstddef>

#include "common/simd.h"

namespace tavistro {

/// Samples per loop iteration. Precondition of all loops: `count` is a multiple of it.
inline constexpr std::size_t sample_loop_step = 8;

/// Real-time safe. Results are bit-identical to those of the plain loops. Null: the plain one is
/// good.
struct SampleLoops {
    void (*to_float)(const unsigned char* from, float* to, std::size_t count) noexcept;
    void (*from_float)(unsigned char* to, const float* from, std::size_t count) noexcept;
};

/// For packed little-endian integers of 2, 3 or 4 bytes. Null if the level has the plain loops
/// alone.
const SampleLoops* fast_sample_loops(std::size_t bytes, SimdLevel level) noexcept;

}  // namespace tavistro
