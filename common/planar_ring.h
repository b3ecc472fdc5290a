// A ring buffer of frames of several channels, each channel in a row of its own. It buffers audio
// between two clocks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "common/cache_line.h"
#include "common/row_loops.h"
#include "common/simd.h"
#include "platform/realtime.h"

namespace tavistro {

/// A read between the frames of a ring: output frame i lies i * ratio + offset frames behind
/// `position`. All but `ratio` are in frames.
struct RingRead {
    std::size_t position = 0;     ///< of the oldest readable frame, below the capacity
    std::uint64_t available = 0;  ///< readable from there, at least 1; the last one is held
    double ratio = 1.0;           ///< ring frames per output frame, above 0
    double offset = 0.0;          ///< not below 0
};

/// Frames have positions from 0 to capacity() - 1, and 0 follows the last one. Blocks are planar:
/// channel c, frame f of a block of n frames at c * n + f, with n less than 65536. The owner
/// decides which frames are read and written. Only the constructor allocates.
class PlanarRing {
  public:
    PlanarRing() = default;
    /// Zero samples. `level` must be one that the processor can run. Throws std::bad_alloc or
    /// std::length_error when memory does not suffice.
    PlanarRing(std::size_t channels, std::size_t capacity, SimdLevel level = simd_level());

    std::size_t channels() const noexcept { return channels_; }
    std::size_t capacity() const noexcept { return capacity_; }

    /// The position `frames`, at most capacity(), behind `position`.
    std::size_t advanced(std::size_t position, std::size_t frames) const noexcept {
        const std::size_t sum = position + frames;
        return sum < capacity_ ? sum : sum - capacity_;
    }

    // The block holds channels() * n samples, n not above capacity().

    TAVISTRO_REALTIME void write(std::size_t position, std::span<const float> block) noexcept;
    TAVISTRO_REALTIME void copy(std::size_t position, std::span<float> block) const noexcept;
    /// Linear between the two frames that each output frame lies between: the difference of the
    /// floats times the position's fraction plus the first, in double precision, rounded to float.
    TAVISTRO_REALTIME void interpolate(const RingRead& read, std::span<float> block) const noexcept;

  private:
    /// Writes output frame i of the positions to `to`, and of the `wanted` frames from there, which
    /// follow each other step by step, as many as lie before the ring's end and the last readable
    /// frame. Returns how many it wrote, at least one.
    std::size_t interpolate_run(const RingRead& read, const RingPositions& positions, std::size_t i,
                                std::size_t wanted, float* to,
                                std::size_t to_stride) const noexcept;

    const RowLoops* loops_ = nullptr;
    std::size_t channels_ = 0;
    std::size_t capacity_ = 0;
    std::size_t stride_ = 0;  ///< samples from one row to the next
    CacheLineVector<float> samples_;
};

}  // namespace tavistro
