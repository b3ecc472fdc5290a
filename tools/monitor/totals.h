// What was counted of one engine's run since the monitor began to watch it.
#pragma once

#include <cstdint>
#include <span>

#include "tools/readings/fields.h"

namespace tavistro::monitor {

/// One kind of trouble.
struct Trouble {
    std::int64_t count = 0;      ///< blocks, notices, periods, milliseconds or pauses
    std::int64_t seconds = 0;    ///< in which it was seen
    std::int64_t drop_outs = 0;  ///< underruns and overruns in those seconds or right beside them
};

/// A new run begins, and everything is 0, when the engine's own counters start anew or the stream's
/// format changes. While `run` stays the same counters only grow.
struct Totals {
#define GAUGE(name, help) std::int64_t name = 0;
#define COUNTER(name, help) std::int64_t name = 0;
#define TROUBLE(name, what) Trouble name{};
#define REAL(name, help) double name = 0;
#include "tools/monitor/totals.def"
};

/// Every field of the totals, in their order; those of a Trouble have its name in front:
/// replaced_count.
std::span<const readings::Field> totals_fields();

/// What happened between two totals of one run: the difference of counters, and gauges as they are
/// in the last.
Totals operator-(const Totals& last, const Totals& first);

}  // namespace tavistro::monitor
