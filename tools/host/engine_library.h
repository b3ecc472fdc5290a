// Where the engine library lies that this program uses.
#pragma once

#include <string>

namespace tavistro::host {

/// Path of the engine library in this process; empty where nobody needs it, or when unknown.
std::string engine_library_path();

}  // namespace tavistro::host
