// What of the drift control shows in the statistics block.
#pragma once

#include "tavistro/stats_block.h"

namespace tavistro::readings {

/// How much faster than its clock the device's side reads the buffer, in ppm: what the clocks seem
/// to differ by, and what brings a fill that is off its target back. Negative for slower.
double read_speed_ppm(const tavistro_stats_block& stats);

}  // namespace tavistro::readings
