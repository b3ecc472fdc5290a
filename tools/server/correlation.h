// Normalised cross-correlation of two signals over all lags.
#pragma once

#include <span>
#include <vector>

namespace tavistro::server {

/// Sum of the squared samples.
double energy(std::span<const float> samples);

/// Correlation coefficients, -1 to 1, of `part` with each segment of its length in `whole`: entry i
/// is for the segment that begins at frame i. 0 where either is silent. `whole` must not be shorter
/// than `part`. Uses FFTs; costs about a hundred operations per frame.
std::vector<double> correlation(std::span<const float> part, std::span<const float> whole);

}  // namespace tavistro::server
