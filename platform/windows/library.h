// A system library that may be missing, or lack a function.
#pragma once

#include <windows.h>

namespace tavistro::platform {

/// A function of a loaded module, null when it has none of that name. `Function` is the type of a
/// pointer to it.
template <typename Function>
Function find_function(HMODULE module, const char* name) noexcept {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

}  // namespace tavistro::platform
