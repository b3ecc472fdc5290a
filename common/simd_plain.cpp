// For processors without faster loops of our own.
#include "common/simd.h"

namespace tavistro {

SimdLevel best_simd_level() noexcept {
    return SimdLevel::baseline;
}

}  // namespace tavistro
