// Validation rules for settings, beyond those of types and accessors.
#pragma once

#include <string>

#include "config/settings.h"

namespace tavistro {

/// Returns the error message of the first violated rule, empty if there is none.
std::string first_fault(const EngineConfig& config);

}  // namespace tavistro
