#pragma once

#include <span>
#include <string>

#include "tools/monitor/account.h"
#include "tools/monitor/sample.h"

namespace tavistro::monitor {

/// The newest sample of every client in the text format of Prometheus, with the causes of
/// `accounts`, which has one for each. Numbers are in base units: seconds, ratios.
std::string to_prometheus(std::span<const Sample> samples, const Accounts& accounts);

}  // namespace tavistro::monitor
