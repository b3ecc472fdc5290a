#include "tools/host/engine_library.h"

namespace tavistro::host {

std::string engine_library_path() {
    return {};  // drivers are in the registry, not beside the library
}

}  // namespace tavistro::host
