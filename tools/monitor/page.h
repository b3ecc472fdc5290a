// The page that draws samples: live from the monitor's HTTP server, or of a recording, complete in
// one file.
#pragma once

#include <span>
#include <string>

#include "tools/monitor/formats.h"

namespace tavistro::monitor {

std::string live_page();
std::string report_page(std::span<const Sample> samples, const Accounts& accounts);

}  // namespace tavistro::monitor
