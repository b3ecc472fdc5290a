#include "common/simd.h"

namespace tavistro {

SimdLevel best_simd_level() noexcept {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") ? SimdLevel::avx2
                                                                           : SimdLevel::baseline;
}

}  // namespace tavistro
