#include "common/simd.h"

namespace tavistro {

// Every arm64 processor has it.
SimdLevel best_simd_level() noexcept {
    return SimdLevel::neon;
}

}  // namespace tavistro
