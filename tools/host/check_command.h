// `tavistro-host check`: what the engine would make of a configuration file.
#pragma once

#include <iosfwd>
#include <string>

namespace tavistro::host {

/// Lists the effective settings, defaults and derived sizes included, on `out` and returns 0; or
/// writes the one line of text that says what is wrong to `errors` and returns 1. Either way
/// warnings of what the engine ignores or misreads come last on `errors`: often they name the
/// cause.
int check_config(const std::string& path, std::ostream& out, std::ostream& errors);

}  // namespace tavistro::host
