// For tests that run at every SIMD level.
#pragma once

#include <gtest/gtest.h>

#include "common/simd.h"

namespace tavistro::test {

class AtSimdLevel : public testing::TestWithParam<SimdLevel> {
  protected:
    void SetUp() override {
        if (GetParam() > best_simd_level()) GTEST_SKIP() << "this processor has no AVX2";
    }
};

inline const auto simd_levels = testing::Values(SimdLevel::baseline, SimdLevel::avx2);

inline std::string simd_level_name(const testing::TestParamInfo<SimdLevel>& level) {
    return level.param == SimdLevel::avx2 ? "Avx2" : "Baseline";
}

}  // namespace tavistro::test
