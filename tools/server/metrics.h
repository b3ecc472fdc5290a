#pragma once

#include <string>

#include "tools/server/server_snapshot.h"

namespace tavistro::server {

/// A snapshot in the text format of Prometheus. Numbers are in base units.
std::string to_prometheus(const ServerSnapshot& snapshot);

}  // namespace tavistro::server
