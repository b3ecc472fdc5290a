// The page that draws samples: live from the monitor's HTTP server, or of a recording, complete in
// one file.
#pragma once

#include <span>
#include <string>

#include "tools/monitor/sample.h"

namespace tavistro::monitor {

std::string live_page();
/// `explanation` is plain text.
std::string report_page(std::span<const Sample> samples, const std::string& explanation);

}  // namespace tavistro::monitor
