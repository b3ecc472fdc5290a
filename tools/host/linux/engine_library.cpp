#include "tools/host/engine_library.h"

#include <dlfcn.h>

namespace tavistro::host {

// Not by the address of a function of the library: in a program that can be an entry of its own.
std::string engine_library_path() {
    void* const library = dlopen(TAVISTRO_ENGINE_FILE, RTLD_LAZY | RTLD_NOLOAD);
    if (library == nullptr) return {};
    Dl_info info{};
    void* const function = dlsym(library, "tavistro_engine_create");
    const bool known = function != nullptr && dladdr(function, &info) != 0;
    dlclose(library);
    return known ? info.dli_fname : std::string();
}

}  // namespace tavistro::host
