#include "bench/chosen_simd_level.h"

namespace tavistro {
namespace {

SimdLevel chosen = best_simd_level();

}  // namespace

SimdLevel simd_level() noexcept {
    return chosen;
}

bool bench::choose_simd_level(std::string_view name) noexcept {
    const bool baseline = name == "baseline";
    if (!baseline && (name != "avx2" || best_simd_level() != SimdLevel::avx2)) return false;
    chosen = baseline ? SimdLevel::baseline : SimdLevel::avx2;
    return true;
}

}  // namespace tavistro
