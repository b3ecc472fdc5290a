// Random numbers that are identical with every standard library.
#pragma once

#include <cmath>
#include <cstdint>
#include <random>

namespace tavistro::diagnosis_lab {

/// Derives independent seeds from neighbouring seeds and from the purposes of one seed.
constexpr std::uint64_t mixed(std::uint64_t seed, std::uint64_t purpose) noexcept {
    std::uint64_t z = seed + 0x9E3779B97F4A7C15 * (purpose + 1);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
    return z ^ (z >> 31);
}

class Dice {
  public:
    Dice(std::uint64_t seed, std::uint64_t purpose) : random_(mixed(seed, purpose)) {}

    std::uint64_t bits() { return random_(); }
    /// Uniform in [0, 1).
    double roll() { return static_cast<double>(random_() >> 11) * 0x1p-53; }
    double between(double least, double most) { return least + (most - least) * roll(); }
    bool chance(double probability) { return roll() < probability; }
    /// Uniform in [0, count).
    std::uint64_t below(std::uint64_t count) { return random_() % count; }
    double exponential(double mean) { return -mean * std::log1p(-roll()); }

  private:
    std::mt19937_64 random_;
};

}  // namespace tavistro::diagnosis_lab
