#include "tools/readings/read_speed.h"

#include <algorithm>

namespace tavistro::host {

double read_speed_ppm(const tavistro_stats_block& stats) {
    constexpr double correction_ppm = 350;
    constexpr double most_ppm = 4500;
    if (stats.target_frames == 0) return 0;
    const double fill = (static_cast<double>(stats.min_frames) + stats.max_frames) / 2;
    const double off = (fill - stats.target_frames) / stats.target_frames;
    return std::clamp(stats.ratio_ppm + correction_ppm * off, -most_ppm, most_ppm);
}

}  // namespace tavistro::host
