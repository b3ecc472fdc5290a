// Which instructions the loops over samples use. Every version of a loop gives the same bits.
//
// The versions are tables of functions, one per level. An owner of such loops selects the table of
// simd_level() when it is constructed.
#pragma once

/// TAVISTRO_AVX2: on a function for SimdLevel::avx2. Multiplications and additions are fused only
/// in explicit calls. A compiler without the attribute allows all instructions everywhere.
/// TAVISTRO_UNROLL_4: before a loop that takes four steps at a time.
#if defined(__clang__)
#define TAVISTRO_AVX2 [[gnu::target("avx2,fma")]]
#define TAVISTRO_UNROLL_4 _Pragma("clang loop unroll_count(4)")
#elif defined(__GNUC__)
#define TAVISTRO_AVX2 [[gnu::target("avx2,fma")]]
#define TAVISTRO_UNROLL_4 _Pragma("GCC unroll 4")
#else
#define TAVISTRO_AVX2
#define TAVISTRO_UNROLL_4
#endif

namespace tavistro {

enum class SimdLevel {
    baseline,  ///< the plain loops, with what every processor of the target has
    avx2,      ///< x86-64, with FMA
    neon,      ///< arm64
};

/// The best level that this processor can run.
SimdLevel best_simd_level() noexcept;

/// The level of this process: the best one, determined when the library is loaded. Any thread;
/// real-time safe.
SimdLevel simd_level() noexcept;

}  // namespace tavistro
