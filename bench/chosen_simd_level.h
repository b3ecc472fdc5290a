// The level of instructions of a program that measures: linked in place of the product's choice.
#pragma once

#include <string_view>

#include "common/simd.h"

namespace tavistro::bench {

/// What simd_level() gives from now on: "baseline", or "avx2" where the processor has it. False for
/// anything else. Before the objects whose loops are to be measured are made.
bool choose_simd_level(std::string_view name) noexcept;

}  // namespace tavistro::bench
