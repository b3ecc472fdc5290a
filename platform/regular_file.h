// Telling a file from what merely has a path.
#pragma once

namespace tavistro::platform {

/// True when `path`, in the system's own narrow encoding, names a regular file that the caller may
/// ask about. Opening anything else may wait for ever (a pipe) or never end (a device).
bool is_regular_file(const char* path) noexcept;

}  // namespace tavistro::platform
