// How alike two pieces of audio are, at every shift between them.
#pragma once

#include <span>
#include <vector>

namespace tavistro::server {

/// Sum of the squares.
double energy(std::span<const float> samples);

/// Correlation coefficients, -1 to 1, of `part` with each stretch of its length in `whole`: entry i
/// belongs to the stretch that begins at frame i. 0 where either is silent. `whole` is no shorter
/// than `part`. By Fourier transforms: some hundred operations a frame.
std::vector<double> correlation(std::span<const float> part, std::span<const float> whole);

}  // namespace tavistro::server
