// In a file of its own, so that a program that measures can link another choice in its place.
#include "common/simd.h"

namespace tavistro {
namespace {

const SimdLevel level_of_process = best_simd_level();

}  // namespace

SimdLevel simd_level() noexcept {
    return level_of_process;
}

}  // namespace tavistro
