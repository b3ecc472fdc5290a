#include "common/simd.h"

#include <cstdlib>
#include <string_view>

namespace tavistro {

namespace {

SimdLevel chosen_level() noexcept {
    // Read while the library is loaded, once. NOLINTNEXTLINE(concurrency-mt-unsafe)
    const char* const wish = std::getenv("TAVISTRO_SIMD");
    if (wish != nullptr && std::string_view(wish) == "baseline") return SimdLevel::baseline;
    return best_simd_level();
}

const SimdLevel level_of_process = chosen_level();

}  // namespace

SimdLevel best_simd_level() noexcept {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") ? SimdLevel::avx2
                                                                           : SimdLevel::baseline;
}

SimdLevel simd_level() noexcept {
    return level_of_process;
}

}  // namespace tavistro
