// Every field of the totals; those of a Trouble have its name in front: replaced_count.
#pragma once

#include <span>

#include "tools/monitor/totals.h"
#include "tools/readings/fields.h"

namespace tavistro::monitor {

/// In the order of Totals.
std::span<const readings::Field> totals_fields();

}  // namespace tavistro::monitor
