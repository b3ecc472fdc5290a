#include "tools/monitor/clock_comparison.h"

#include <algorithm>
#include <cmath>

namespace tavistro::monitor {

namespace {

/// Blocks and periods are counted whole, each up to one too few.
constexpr double least_error_blocks = 0.5;
/// Beyond this a measurement says nothing about a clock.
constexpr double most_uncertainty_ppm = 2000;
constexpr double fewest_points = 5;

}  // namespace

void ClockComparison::add(std::int64_t blocks, std::int64_t periods) {
    const double from_x = static_cast<double>(periods) - stretch_.mean_x;
    const double from_y = static_cast<double>(blocks - periods) - stretch_.mean_y;
    if (stretch_.n > 0) points_ += 1;
    stretch_.n += 1;
    stretch_.mean_x += from_x / stretch_.n;
    stretch_.mean_y += from_y / stretch_.n;
    // Of a point's square about the mean, the share that moving the mean leaves.
    const double share = 1 - 1 / stretch_.n;
    stretch_.xx += share * from_x * from_x;
    xx_ += share * from_x * from_x;
    xy_ += share * from_x * from_y;
    yy_ += share * from_y * from_y;
}

void ClockComparison::begin_stretch() {
    ended_spread_ += stretch_.spread();
    stretch_ = {};
}

/// Evenly spaced points over a length T: xx = n T^2 / 12, and their distances from the mean sum up
/// to n T / 4.
double ClockComparison::Stretch::spread() const {
    return std::sqrt(0.75 * n * xx);
}

ClockComparison::Result ClockComparison::result() const {
    if (points_ < fewest_points || xx_ <= 0) return {};
    const double slope = xy_ / xx_;
    const double residual = std::max(0.0, yy_ - slope * xy_);
    // Errors of whole blocks come in long runs, while the two clocks pass each other: they all may
    // pull to one side.
    const double error = std::max(least_error_blocks, 1.5 * std::sqrt(residual / points_));
    const double uncertainty_ppm = 1e6 * error * (ended_spread_ + stretch_.spread()) / xx_;
    if (uncertainty_ppm > most_uncertainty_ppm) return {};
    return {1e6 * slope, uncertainty_ppm};
}

}  // namespace tavistro::monitor
