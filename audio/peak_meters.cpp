#include "audio/peak_meters.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "audio/atomic_maximum.h"

namespace tavistro {

namespace {

constexpr double updates_per_second = 30.0;

}  // namespace

std::uint32_t peak_permille(std::span<const float> samples) noexcept {
    float peak = 0.0F;
    for (const float sample : samples)
        peak = std::max(peak, std::fabs(sample));
    if (peak >= 1.0F) return 1000;
    return static_cast<std::uint32_t>(peak * 1000.0F + 0.5F);
}

void PeakMeters::configure(std::size_t channels) noexcept {
    count_ = static_cast<std::uint32_t>(std::min(channels, max_meters));
    for (auto& peak : peaks_)
        peak.store(0, std::memory_order_relaxed);
}

void PeakMeters::raise(std::size_t channel, std::span<const float> samples) noexcept {
    if (channel < count_) raise_to(peaks_[channel], peak_permille(samples));
}

std::array<std::uint32_t, max_meters> PeakMeters::take() noexcept {
    std::array<std::uint32_t, max_meters> taken{};
    for (std::size_t i = 0; i < count_; ++i)
        taken[i] = peaks_[i].exchange(0, std::memory_order_relaxed);
    return taken;
}

void MeterSchedule::configure(double sample_rate, std::int32_t block_frames) noexcept {
    phase_ = 0;
    meter_divisor_ = 1;
    if (!(sample_rate > 0.0) || block_frames <= 0) return;
    const double periods = sample_rate / static_cast<double>(block_frames) / updates_per_second;
    // A driver may report any rate, even infinity.
    constexpr double highest = std::numeric_limits<std::uint32_t>::max();
    if (periods > 1.0)
        meter_divisor_ = static_cast<std::uint32_t>(std::min(periods + 0.5, highest));
}

bool MeterSchedule::tick() noexcept {
    if (meter_divisor_ <= 1) return true;
    const bool due = phase_ == 0;
    phase_ = (phase_ + 1) % meter_divisor_;
    return due;
}

}  // namespace tavistro
