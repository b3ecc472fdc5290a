// Peak meters: the largest absolute sample of each channel since the last report.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

#include "audio/player_telemetry.h"
#include "platform/realtime.h"

namespace tavistro {

/// Largest absolute sample in 1/1000 of full scale, rounded, 0..1000; 0 without samples.
TAVISTRO_REALTIME std::uint32_t peak_permille(std::span<const float> samples) noexcept;

/// The input or output meters, for at most max_meters channels. Output meters show the rendered
/// signal, on the virtual device too.
class PeakMeters {
  public:
    /// Sets all meters to 0. Not while the device thread or a reader is active.
    void configure(std::size_t channels) noexcept;
    std::uint32_t count() const noexcept { return count_; }

    /// Raises the channel's meter to the peak of the samples; ignores a channel without a meter.
    /// Device thread.
    TAVISTRO_REALTIME void raise(std::size_t channel, std::span<const float> samples) noexcept;
    /// Returns the peaks since the last call, 0 beyond count(). Any thread.
    std::array<std::uint32_t, max_meters> take() noexcept;

  private:
    // Relaxed: each peak by itself; an exchange loses none, whatever the order.
    std::array<std::atomic<std::uint32_t>, max_meters> peaks_{};
    std::uint32_t count_ = 0;
};

/// Selects the periods in which meters are updated, about 30 per second. Device thread.
class MeterSchedule {
  public:
    /// `sample_rate` is in Hz and may be any number. If rate or period are not above 0, every
    /// period is due.
    void configure(double sample_rate, std::int32_t block_frames) noexcept;
    /// Counts one period; returns true if its meters are due.
    TAVISTRO_REALTIME bool tick() noexcept;
    std::uint32_t meter_divisor() const noexcept { return meter_divisor_; }

  private:
    std::uint32_t meter_divisor_ = 1;
    std::uint32_t phase_ = 0;
};

}  // namespace tavistro
