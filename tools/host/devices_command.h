// `tavistro-host devices`: which ASIO drivers there are, and what each offers.
#pragma once

#include <iosfwd>

namespace tavistro::host {

/// Loads one registered driver after the other, asks it and lists it on `out`; nothing is started.
/// With `json` one object per line. The list for people has each name before its driver is loaded:
/// should one end the process, the last name is its own. Returns the exit code: 0 when drivers were
/// listed, also such that failed, 1 when none is registered (said on `errors`).
int list_devices(bool json, std::ostream& out, std::ostream& errors);

}  // namespace tavistro::host
