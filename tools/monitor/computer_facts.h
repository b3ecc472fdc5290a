#pragma once

#include <string>

#include "tools/readings/fields_json.h"

namespace tavistro::monitor {

/// What matters of this computer for a stream: system, processor, memory, limits for real-time
/// threads, network interfaces, sound devices; none of it is an address or a name of the computer.
/// What the system does not tell is left out.
readings::Json computer_facts();

/// What `PROGRAM --version` prints, for a program in the folder of this one; empty when it cannot
/// be run.
std::string version_of(const std::string& program);

}  // namespace tavistro::monitor
