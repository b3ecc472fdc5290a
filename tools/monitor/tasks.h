// What the monitor does, by its command line.
#pragma once

#include <atomic>
#include <iosfwd>

#include "tools/monitor/options.h"

namespace tavistro::monitor {

// Each returns the exit status and throws std::runtime_error for files and addresses that cannot be
// used. `stop` is set by a signal handler or another thread.

/// Shows, records and serves readings; 1 for "--once" without an engine.
int watch(const Options& options, std::ostream& out, const std::atomic<bool>& stop);
/// A recording as a page.
int write_report(const Options& options, std::ostream& out);
/// A recording, or what is seen now, in words; 1 when something was wrong or is not clear yet.
int explain(const Options& options, std::ostream& out, const std::atomic<bool>& stop);

}  // namespace tavistro::monitor
