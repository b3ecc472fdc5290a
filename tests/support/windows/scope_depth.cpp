#include "support/scope_depth.h"

#include <windows.h>

#include <atomic>
#include <cstdint>

// No thread_local: in this tool chain it locks and allocates at its first use in each thread.

namespace tavistro::test {
namespace {

/// Not allocated before the first scope; every thread's depth is then 0.
std::atomic<DWORD> slot{TLS_OUT_OF_INDEXES};

DWORD allocated_slot() noexcept {
    static const DWORD allocated = TlsAlloc();
    return allocated;
}

}  // namespace

int scope_depth() noexcept {
    if (slot == TLS_OUT_OF_INDEXES) return 0;
    const DWORD error = GetLastError();  // TlsGetValue overwrites it
    const auto depth = reinterpret_cast<std::intptr_t>(TlsGetValue(slot));
    SetLastError(error);
    return static_cast<int>(depth);
}
void set_scope_depth(int depth) noexcept {
    slot = allocated_slot();
    TlsSetValue(slot, reinterpret_cast<void*>(std::intptr_t{depth}));
}

}  // namespace tavistro::test
