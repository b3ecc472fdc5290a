// The monitor as a program: reads, shows, records, serves, explains.
#pragma once

#include <atomic>
#include <iosfwd>

#include "tools/monitor/options.h"

namespace tavistro::monitor {

/// Does what `options` ask until it is done or `stop` is set (by a signal handler or another
/// thread). Returns the exit status: 0; 1 for "--once" without an engine and for an explanation
/// that something was wrong or is not clear yet. Throws std::runtime_error for files and addresses
/// that cannot be used.
int run_monitor(const Options& options, std::ostream& out, const std::atomic<bool>& stop);

}  // namespace tavistro::monitor
