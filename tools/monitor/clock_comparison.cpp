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
    if (current_.n == 0) {
        first_periods_ = periods;
        first_difference_ = blocks - periods;
    }
    const auto x = static_cast<double>(periods - first_periods_);
    const auto y = static_cast<double>(blocks - periods - first_difference_);
    current_.n += 1;
    current_.x += x;
    current_.y += y;
    current_.xx += x * x;
    current_.xy += x * y;
    current_.yy += y * y;
}

void ClockComparison::begin_stretch() {
    join(ended_, slope_of(current_));
    current_ = {};
}

ClockComparison::Slope ClockComparison::slope_of(const Sums& s) {
    if (s.n < 2) return {};
    const double xx = s.xx - s.x * s.x / s.n;
    // Evenly spaced points over a length T: xx = n T^2 / 12, and their distances from the mean sum
    // up to n T / 4.
    const double length = std::sqrt(12 * xx / s.n);
    return {xx, s.xy - s.x * s.y / s.n, s.yy - s.y * s.y / s.n, s.n * length / 4, s.n - 1};
}

void ClockComparison::join(Slope& all, const Slope& one) {
    all.xx += one.xx;
    all.xy += one.xy;
    all.yy += one.yy;
    all.spread += one.spread;
    all.points += one.points;
}

ClockComparison::Result ClockComparison::result() const {
    Slope all = ended_;
    join(all, slope_of(current_));
    if (all.points < fewest_points || all.xx <= 0) return {};
    const double slope = all.xy / all.xx;
    const double residual = std::max(0.0, all.yy - slope * all.xy);
    // Errors of whole blocks come in long runs, while the two clocks pass each other: they all may
    // pull to one side.
    const double error = std::max(least_error_blocks, 1.5 * std::sqrt(residual / all.points));
    const double uncertainty_ppm = 1e6 * error * all.spread / all.xx;
    if (uncertainty_ppm > most_uncertainty_ppm) return {};
    return {1e6 * slope, uncertainty_ppm};
}

}  // namespace tavistro::monitor
