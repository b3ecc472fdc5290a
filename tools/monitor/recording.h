// Recordings: files of what was seen, a line of JSON for each sample.
#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "tools/monitor/sample.h"

namespace tavistro::monitor {

// All throw std::runtime_error for files that cannot be used.

std::ofstream open_for_writing(const std::string& path);
/// A recording may hold what will not come again: no file is overwritten.
std::ofstream open_recording(const std::string& path);
/// The samples of the clients wanted, or of all if none is named; at least one.
std::vector<Sample> recording_at(const std::string& path,
                                 const std::vector<std::uint32_t>& client_ids);

}  // namespace tavistro::monitor
