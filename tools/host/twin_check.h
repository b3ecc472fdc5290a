// Two engines with one client_id are one client to the server and share one statistics block: both
// break up, and neither can tell. So `run` looks first.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

namespace tavistro::host {

/// Whether an engine on this computer plays under the client_id: its block shows a run, and it has
/// not died since.
bool engine_plays_as(std::uint32_t client_id);

/// Writes a line to `errors` when an engine plays under the client_id of the configuration. Nothing
/// of a configuration that cannot be loaded: the run will say so.
void warn_of_twin(const std::string& config_path, std::ostream& errors);

}  // namespace tavistro::host
