// The program tavistro-server as a function, so that tests can run it in their process.
#pragma once

#include <iosfwd>

namespace tavistro::server {

/// Serves until the time given in the arguments is over or SIGINT or SIGTERM comes; a second signal
/// ends the process at once. Returns the exit code: 0, 1 when the server could not start or a
/// recording failed, 2 for wrong arguments.
int run_server_program(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace tavistro::server
