// The speed at which a buffer between two clocks is read. Both directions use it: the playback
// buffer follows the server's clock, the ring of captured input the device's clock.
#pragma once

#include <algorithm>

namespace tavistro {

/// A measured ratio of two clocks that is not strictly between these is a restart or a gap.
inline constexpr double lowest_clock_ratio = 0.95;
inline constexpr double highest_clock_ratio = 1.05;

/// Speed added when the fill is twice its target, and subtracted when the buffer is empty.
inline constexpr double fill_correction = 0.00035;
/// Limits within which both corrections together stay inaudible.
inline constexpr double lowest_read_ratio = 0.9955;
inline constexpr double highest_read_ratio = 1.0045;

constexpr bool plausible_clock_ratio(double ratio) noexcept {
    return ratio > lowest_clock_ratio && ratio < highest_clock_ratio;
}

/// The estimate of a clock ratio after another measurement: it moves by a fiftieth of the
/// difference, if the measurement is plausible.
constexpr double followed_clock_ratio(double estimate, double measured) noexcept {
    return plausible_clock_ratio(measured) ? estimate * 0.98 + measured * 0.02 : estimate;
}

/// Buffered frames per frame read. `clock_ratio` is that of the clock that fills the buffer to the
/// one that empties it; fill and target are in frames, the target above 0.
constexpr double read_ratio(double clock_ratio, double fill, double target) noexcept {
    return std::clamp(clock_ratio + (fill - target) / target * fill_correction, lowest_read_ratio,
                      highest_read_ratio);
}

}  // namespace tavistro
