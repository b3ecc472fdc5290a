#include "bench/chosen_simd_level.h"

namespace tavistro {
namespace {

SimdLevel chosen = best_simd_level();

}  // namespace

SimdLevel simd_level() noexcept {
    return chosen;
}

bool bench::choose_simd_level(std::string_view name) noexcept {
    constexpr std::string_view names[] = {"baseline", "avx2", "neon"};
    for (const SimdLevel level : {SimdLevel::baseline, best_simd_level()}) {
        if (name != names[static_cast<std::size_t>(level)]) continue;
        chosen = level;
        return true;
    }
    return false;
}

}  // namespace tavistro
