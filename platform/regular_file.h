// Distinguishes regular files from pipes, devices and folders.
#pragma once

namespace tavistro::platform {

/// True when `path`, in the system's own narrow encoding, names a regular file. Opening anything
/// else can block forever (a pipe) or read without end (a device).
bool is_regular_file(const char* path) noexcept;

}  // namespace tavistro::platform
