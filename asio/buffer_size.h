// Buffer sizes that a driver accepts.
#pragma once

#include <cstdint>

namespace tavistro {

/// The buffer sizes that a driver reports, in frames.
struct BufferSizeRange {
    std::int32_t minimum = 0;
    std::int32_t maximum = 0;
    std::int32_t preferred = 0;
    /// > 0: minimum plus multiples of it; -1: minimum times powers of two; 0: only the minimum.
    std::int32_t granularity = 0;
};

/// True if a driver with this range accepts buffers of `frames`. If minimum and maximum are equal,
/// the granularity is ignored.
bool acceptable_buffer_size(std::int64_t frames, const BufferSizeRange& range) noexcept;

}  // namespace tavistro
