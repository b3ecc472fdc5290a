// Loading the settings of a run: file, conversion, derived sizes and validation in one call.
#pragma once

#include <istream>
#include <string>

#include "config/settings.h"

namespace tavistro {

/// Reads the INI file at `path`, which is handed to the system's file opening unchanged (on
/// Windows: text in the ANSI code page).
///
/// `error` is emptied first. On success the whole of `config` is overwritten and the result is
/// true. On failure the result is false, `error` holds one line of text about the first fault,
/// and `config` is untouched. What is not a regular file (a directory, a pipe, a device) or cannot
/// be read to its end counts as one that cannot be opened. Unknown sections and keys are ignored.
/// Memory that runs out is a fault like any other. Does not throw for bad input; waits for the file
/// system, and for nothing else.
bool load_engine_config(const std::string& path, EngineConfig& config, std::string& error);

/// The same for text that is open already, a stream of raw bytes that is read to its end.
bool read_engine_config(std::istream& input, EngineConfig& config, std::string& error);

/// Sets the sizes that follow from `client.client_latency_blocks`: the buffers of the playback
/// and the capture side and the latencies of the announce.
void apply_latency_derivation(EngineConfig& config);

}  // namespace tavistro
