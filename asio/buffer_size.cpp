#include "asio/buffer_size.h"

namespace tavistro {

bool acceptable_buffer_size(std::int64_t frames, const BufferSizeRange& range) noexcept {
    const std::int64_t minimum = range.minimum;
    if (frames < minimum || frames > range.maximum) return false;
    if (minimum == range.maximum) return true;
    if (range.granularity > 0) return (frames - minimum) % range.granularity == 0;
    if (range.granularity == 0) return frames == minimum;
    if (range.granularity != -1 || minimum < 1) return false;
    std::int64_t doubled = minimum;
    while (doubled < frames)
        doubled *= 2;
    return doubled == frames;
}

}  // namespace tavistro
