// Lets benchmark programs select the SIMD level. Linked in place of the engine's own selection.
#pragma once

#include <string_view>

#include "common/simd.h"

namespace tavistro::bench {

/// Sets the result of simd_level(): "baseline", or "avx2" or "neon" if the processor supports it.
/// False for anything else. Call it before creating the objects to measure.
bool choose_simd_level(std::string_view name) noexcept;

}  // namespace tavistro::bench
