#include <immintrin.h>
#include <intrin.h>

#include "common/simd.h"

namespace tavistro {

// The processor has the instructions, and the system keeps the upper halves of the registers.
SimdLevel best_simd_level() noexcept {
    constexpr int fma = 1 << 12, os_saves_registers = 1 << 27;  // leaf 1, ecx
    constexpr int avx2 = 1 << 5;                                // leaf 7, ebx
    constexpr unsigned long long sse_and_avx_state = 0b110;
    int info[4];  // eax, ebx, ecx, edx
    __cpuid(info, 0);
    if (info[0] < 7) return SimdLevel::baseline;
    __cpuid(info, 1);
    constexpr int wanted = fma | os_saves_registers;
    if ((info[2] & wanted) != wanted) return SimdLevel::baseline;
    if ((_xgetbv(0) & sse_and_avx_state) != sse_and_avx_state) return SimdLevel::baseline;
    __cpuidex(info, 7, 0);
    return (info[1] & avx2) != 0 ? SimdLevel::avx2 : SimdLevel::baseline;
}

}  // namespace tavistro
