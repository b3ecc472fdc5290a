// Buffers captured input between the device clock and the server clock: pushed at the rate of one,
// pulled at the rate of the other, and resampled by the small difference between them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "common/planar_ring.h"

namespace tavistro {

/// A ring of planar frames. The read ratio keeps its fill level near a target; an overflow drops
/// the oldest frames. Not thread-safe; push and every pull but the first allocate nothing.
class CaptureRing {
  public:
    /// Without a format: push and pull do nothing.
    CaptureRing() = default;
    /// Blocks of `frames` frames at `sample_rate` Hz, neither of them 0. The target fill level and
    /// the capacity are in blocks.
    CaptureRing(std::size_t channels, std::uint32_t sample_rate, std::uint16_t frames,
                std::uint64_t target_blocks, std::uint64_t capacity_blocks);

    bool capture_format_set() const noexcept { return ring_sample_rate_ != 0; }
    std::uint32_t capture_sample_rate() const noexcept { return ring_sample_rate_; }
    std::uint16_t capture_frames() const noexcept { return ring_frames_; }
    /// Buffered frames.
    std::uint64_t fill() const noexcept { return fill_; }

    /// Appends one planar block. Drops a block whose format, channel count or sample count does not
    /// match. `rate_ratio`, device frames per server frame as measured on the device side, is
    /// used if it is plausible (common/drift_law.h).
    void push(std::uint32_t sample_rate, std::uint16_t frames, std::uint16_t channels,
              std::span<const float> samples, double rate_ratio);

    /// Reads one planar block of `frames` frames, resampled from `frames` times the ratio buffered
    /// frames. Returns false and changes nothing for another format, without channels, or with
    /// fewer than frames + 2 frames buffered.
    bool pull(std::uint32_t sample_rate, std::uint16_t frames, std::vector<float>& block);

  private:
    void drop_oldest(std::uint64_t frames) noexcept;

    PlanarRing buffers_;
    std::uint32_t ring_sample_rate_ = 0;
    std::uint16_t ring_frames_ = 0;
    std::uint64_t target_samples_ = 0;
    std::uint64_t limit_samples_ = 0;
    std::size_t read_pos_ = 0;  ///< ring position of the oldest buffered frame
    std::uint64_t fill_ = 0;
    double frac_pos_ = 0.0;  ///< read position in frames from read_pos_
    double rate_ratio_ = 1.0;
};

}  // namespace tavistro
