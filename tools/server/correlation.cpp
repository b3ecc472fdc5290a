#include "tools/server/correlation.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <kissfft/kissfft.hh>

namespace tavistro::server {

namespace {

using Spectrum = std::vector<std::complex<double>>;

/// Segments whose share of the total energy is below this are silence plus rounding errors.
constexpr double least_energy_ratio = 1e-12;

Spectrum spectrum(std::span<const float> samples, std::size_t size) {
    Spectrum padded(size);
    std::ranges::copy(samples, padded.begin());
    Spectrum result(size);
    kissfft<double>(size, false).transform(padded.data(), result.data());
    return result;
}

double squared(double sample) {
    return sample * sample;
}

}  // namespace

double energy(std::span<const float> samples) {
    double sum = 0;
    for (const float sample : samples)
        sum += squared(sample);
    return sum;
}

std::vector<double> correlation(std::span<const float> part, std::span<const float> whole) {
    // A circular correlation of this size suffices: no segment reaches past the end of `whole`.
    const std::size_t size = std::bit_ceil(whole.size());
    Spectrum products = spectrum(whole, size);
    const Spectrum other = spectrum(part, size);
    for (std::size_t i = 0; i < size; ++i)
        products[i] *= std::conj(other[i]);
    Spectrum sums(size);
    kissfft<double>(size, true).transform(products.data(), sums.data());

    std::vector<double> coefficients(whole.size() - part.size() + 1);
    const double part_energy = energy(part);
    const double least_energy = least_energy_ratio * energy(whole);
    double stretch_energy = energy(whole.first(part.size()));
    for (std::size_t i = 0; i < coefficients.size(); ++i) {
        if (i > 0) stretch_energy += squared(whole[i + part.size() - 1]) - squared(whole[i - 1]);
        if (part_energy == 0 || stretch_energy <= least_energy) continue;
        const double product = sums[i].real() / static_cast<double>(size);
        coefficients[i] = product / std::sqrt(part_energy * stretch_energy);
    }
    return coefficients;
}

}  // namespace tavistro::server
