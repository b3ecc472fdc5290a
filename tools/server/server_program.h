// The program tavistro-server as a function, so that tests can run it in their process.
#pragma once

#include <iosfwd>

namespace tavistro::server {

/// Serves until the time given by --seconds is over or until SIGINT or SIGTERM. Returns the exit
/// code: 0; 1 when the server could not start or a recording failed; 2 for invalid arguments.
int run_server_program(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace tavistro::server
