// Which instructions the loops over samples use. Every version of a loop gives the same bits.
//
// A loop is written once, as an always-inline template body, and compiled per level by a thin
// function that carries the level's target attribute; a table of such functions is picked at load.
#pragma once

/// On a body that is compiled anew for each level.
#define TAVISTRO_SIMD_BODY [[gnu::always_inline]] inline
/// On a function of the level avx2. Multiplications and additions stay unfused all the same.
#define TAVISTRO_AVX2 [[gnu::target("avx2,fma")]]

namespace tavistro {

enum class SimdLevel {
    baseline,  ///< what every 64-bit x86 processor has
    avx2,      ///< with FMA
};

/// The level of this process, chosen when the library is loaded: the best that the processor has,
/// or "baseline" when the environment variable TAVISTRO_SIMD says so.
SimdLevel simd_level() noexcept;

/// The best level that this processor can run.
SimdLevel best_simd_level() noexcept;

}  // namespace tavistro
