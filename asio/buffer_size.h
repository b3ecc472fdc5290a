// Which buffer sizes a driver takes.
#pragma once

#include <cstdint>

namespace tavistro {

/// What a driver answers when it is asked for its buffer sizes, in frames.
struct BufferSizeRange {
    std::int32_t minimum = 0;
    std::int32_t maximum = 0;
    std::int32_t preferred = 0;
    /// > 0: steps from the minimum; -1: the minimum doubled any number of times; 0: the minimum.
    std::int32_t granularity = 0;
};

/// True when a driver with this range can be asked for buffers of `frames`. The only size of a
/// range is fine whatever the granularity says.
bool acceptable_buffer_size(std::int64_t frames, const BufferSizeRange& range) noexcept;

}  // namespace tavistro
