// How much faster the server's clock is than the device's, from counts of blocks and periods.
#pragma once

#include <cstdint>

namespace tavistro::monitor {

/// Fits a line through blocks minus periods. Whatever shifts the two against each other but a clock
/// (a silence, periods missed) begins a new stretch: the stretches share the slope and not the
/// height.
class ClockComparison {
  public:
    /// Sums of one moment.
    void add(std::int64_t blocks, std::int64_t periods);
    void begin_stretch();

    struct Result {
        double server_faster_ppm = 0;
        double uncertainty_ppm = 0;  ///< 0: not known yet
    };
    Result result() const;

  private:
    struct Sums {
        double n = 0;
        double x = 0;  ///< periods since the stretch began
        double y = 0;  ///< blocks minus periods since then
        double xx = 0;
        double xy = 0;
        double yy = 0;
    };
    /// What a stretch says of the slope.
    struct Slope {
        double xx = 0;  ///< about the means
        double xy = 0;
        double yy = 0;
        double spread = 0;  ///< sum of the distances of x from its mean
        double points = 0;
    };
    static Slope slope_of(const Sums& sums);
    static void join(Slope& all, const Slope& one);

    Slope ended_;
    Sums current_;
    std::int64_t first_periods_ = 0;
    std::int64_t first_difference_ = 0;
};

}  // namespace tavistro::monitor
