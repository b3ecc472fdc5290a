// Loads the settings of a run: file, conversion, derived sizes and validation in one call.
#pragma once

#include <istream>
#include <string>

#include "config/settings.h"

namespace tavistro {

/// Reads the INI file at `path`, which is passed to the system unchanged (on Windows: in the ANSI
/// code page).
///
/// On success overwrites all of `config`, clears `error` and returns true. On failure returns
/// false, leaves `config` unchanged and sets `error` to one line of text about the first fault. A
/// path that is not a regular file (a directory, a pipe, a device) or cannot be read to its end
/// counts as a file that cannot be opened. Ignores unknown sections and keys. Running out of memory
/// is reported like any other fault. Does not throw for bad input; waits only for the file system.
bool load_engine_config(const std::string& path, EngineConfig& config, std::string& error);

/// Like load_engine_config, with a stream of raw bytes that is read to its end.
bool read_engine_config(std::istream& input, EngineConfig& config, std::string& error);

/// Derives sizes from `client.client_latency_blocks`: those of the playback and capture buffers and
/// the latencies of the announce.
void apply_latency_derivation(EngineConfig& config);

}  // namespace tavistro
