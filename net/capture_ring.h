// Captured input between the device's clock and the server's: pushed at one pace, pulled at the
// other, resampled by the little that the two differ.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "common/planar_ring.h"

namespace tavistro {

/// A ring of planar frames that is held near a target fill by the ratio at which it is read. Full
/// means that the oldest frames go. Not thread-safe; push and a repeated pull allocate nothing.
class CaptureRing {
  public:
    /// No format yet: takes and gives nothing.
    CaptureRing() = default;
    /// Blocks of `frames` frames at `sample_rate` Hz, both not 0. The target fill and the most that
    /// is held are given in blocks.
    CaptureRing(std::size_t channels, std::uint32_t sample_rate, std::uint16_t frames,
                std::uint64_t target_blocks, std::uint64_t capacity_blocks);

    bool capture_format_set() const noexcept { return ring_sample_rate_ != 0; }
    std::uint32_t capture_sample_rate() const noexcept { return ring_sample_rate_; }
    std::uint16_t capture_frames() const noexcept { return ring_frames_; }
    /// Frames held.
    std::uint64_t fill() const noexcept { return fill_; }

    /// Appends one planar block. A block whose format, channel or sample count does not fit is
    /// dropped whole. `rate_ratio` (device frames per server frame as the device side measures it)
    /// is kept when it is a plausible one (common/drift_law.h).
    void push(std::uint32_t sample_rate, std::uint16_t frames, std::uint16_t channels,
              std::span<const float> samples, double rate_ratio);

    /// Takes one planar block of `frames` frames, made of as many held frames times the ratio.
    /// False, with nothing changed, for another format, without channels, or with less than
    /// frames + 2 frames held.
    bool pull(std::uint32_t sample_rate, std::uint16_t frames, std::vector<float>& block);

  private:
    void drop_oldest(std::uint64_t frames) noexcept;

    PlanarRing buffers_;
    std::uint32_t ring_sample_rate_ = 0;
    std::uint16_t ring_frames_ = 0;
    std::uint64_t target_samples_ = 0;
    std::uint64_t limit_samples_ = 0;
    std::size_t read_pos_ = 0;  ///< of the oldest held frame in the ring
    std::uint64_t fill_ = 0;
    double frac_pos_ = 0.0;  ///< reading position in frames from read_pos_
    double rate_ratio_ = 1.0;
};

}  // namespace tavistro
