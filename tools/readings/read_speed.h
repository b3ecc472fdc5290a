// Computes the drift control's read speed from the statistics block.
#pragma once

#include <algorithm>

#include "common/drift_law.h"
#include "tavistro/stats_block.h"

namespace tavistro::readings {

/// How much faster than the device clock the playback buffer is read, in ppm; negative: slower. The
/// sum of the estimated clock difference and the correction that moves the fill to its target.
inline double read_speed_ppm(const tavistro_stats_block& stats) {
    if (stats.target_frames == 0) return 0;
    const double fill = (static_cast<double>(stats.min_frames) + stats.max_frames) / 2;
    const double off = (fill - stats.target_frames) / stats.target_frames;
    return std::clamp(stats.ratio_ppm + fill_correction * 1e6 * off, (lowest_read_ratio - 1) * 1e6,
                      (highest_read_ratio - 1) * 1e6);
}

}  // namespace tavistro::readings
