// The rules that settings must keep, beyond what their types and accessors say.
#pragma once

#include <string>

#include "config/settings.h"

namespace tavistro {

/// The message of the first broken rule, empty when the settings keep them all.
std::string first_fault(const EngineConfig& config);

}  // namespace tavistro
