// For tests that run at every SIMD level.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/simd.h"

namespace tavistro::test {

using AtSimdLevel = testing::TestWithParam<SimdLevel>;

/// Every level that the processor has.
inline std::vector<SimdLevel> simd_levels() {
    std::vector<SimdLevel> levels{SimdLevel::baseline};
    if (best_simd_level() != SimdLevel::baseline) levels.push_back(best_simd_level());
    return levels;
}

inline std::string simd_level_name(const testing::TestParamInfo<SimdLevel>& level) {
    return level.param == SimdLevel::baseline ? "Baseline" : "Fast";
}

}  // namespace tavistro::test
