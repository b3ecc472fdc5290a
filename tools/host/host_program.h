// tavistro-host as a function.
#pragma once

#include <iosfwd>

namespace tavistro::host {

/// Does what the arguments ask for. Returns the exit code: that of the subcommand, 2 for wrong
/// arguments. On the main thread: `run` takes signals.
int run_host_program(int argc, const char* const* argv, std::ostream& out, std::ostream& errors);

}  // namespace tavistro::host
