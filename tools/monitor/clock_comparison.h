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
    /// Of the points of one stretch: x are periods, y are blocks minus periods.
    struct Stretch {
        double n = 0;
        double mean_x = 0;
        double mean_y = 0;
        double xx = 0;  ///< about the mean
        /// Sum of the distances of x from its mean.
        double spread() const;
    };

    Stretch stretch_;
    // Sums over all stretches, about the means of each.
    double xx_ = 0;
    double xy_ = 0;
    double yy_ = 0;
    double points_ = 0;        ///< without one of each stretch, which says nothing of the slope
    double ended_spread_ = 0;  ///< of the stretches that have ended
};

}  // namespace tavistro::monitor
