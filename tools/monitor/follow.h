// Readings of running engines, one after the other.
#pragma once

#include <atomic>
#include <functional>
#include <vector>

#include "tools/monitor/options.h"
#include "tools/monitor/sample.h"

namespace tavistro::monitor {

/// Calls `each` with a reading of all clients every interval, the first at once, until it returns
/// false, the time is over or `stop` is set (by a signal handler or another thread).
void follow(const Options& options, const std::atomic<bool>& stop,
            const std::function<bool(const std::vector<Sample>&)>& each);

}  // namespace tavistro::monitor
