// Peak meters: the loudest sample of each channel since the last report, in thousandths.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

#include "audio/player_telemetry.h"
#include "platform/realtime.h"

namespace tavistro {

/// Largest absolute value of the samples in thousandths of full scale, rounded, 0..1000. 0 for no
/// samples.
TAVISTRO_REALTIME std::uint32_t peak_permille(std::span<const float> samples) noexcept;

/// The meters of one direction, for at most max_meters channels. Those of the outputs show what is
/// played, on the virtual device as well.
class PeakMeters {
  public:
    /// All meters at 0. While neither side is inside.
    void configure(std::size_t channels) noexcept;
    std::uint32_t count() const noexcept { return count_; }

    /// Raises the meter to the peak of the samples; a channel without a meter is left out. Device
    /// thread.
    TAVISTRO_REALTIME void raise(std::size_t channel, std::span<const float> samples) noexcept;
    /// Peaks since the last call, 0 beyond count(). Any thread.
    std::array<std::uint32_t, max_meters> take() noexcept;

  private:
    std::array<std::atomic<std::uint32_t>, max_meters> peaks_{};
    std::uint32_t count_ = 0;
};

/// Says in which periods the meters are worth their time: about 30 times a second. Device thread.
class MeterSchedule {
  public:
    /// `sample_rate` in Hz, any number; a rate or period that is not above 0 makes every period
    /// due.
    void configure(double sample_rate, std::int32_t block_frames) noexcept;
    /// Counts one period; true when its meters are due.
    TAVISTRO_REALTIME bool tick() noexcept;
    std::uint32_t meter_divisor() const noexcept { return meter_divisor_; }

  private:
    std::uint32_t meter_divisor_ = 1;
    std::uint32_t phase_ = 0;
};

}  // namespace tavistro
