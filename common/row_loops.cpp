#include "common/row_loops.h"

#include <cstring>

namespace tavistro {

namespace {

void copy(float* to, std::size_t to_stride, const float* from, std::size_t from_stride,
          std::size_t rows, std::size_t count) noexcept {
    for (; rows > 0; --rows, to += to_stride, from += from_stride)
        std::memcpy(to, from, count * sizeof(float));
}

bool find_positions(RingPositions& positions, std::int32_t first, std::size_t count, double ratio,
                    double offset) noexcept {
    for (std::size_t i = 0; i < count; ++i) {
        const auto frame = static_cast<double>(first + static_cast<std::int32_t>(i));
        const double position = frame * ratio + offset;
        positions.whole[i] = static_cast<std::int32_t>(position);
        positions.fraction[i] = position - static_cast<double>(positions.whole[i]);
    }
    std::int32_t deviation = 0;
    for (std::size_t i = 0; i < count; ++i)
        deviation |= positions.whole[i] ^ (positions.whole[0] + static_cast<std::int32_t>(i));
    return deviation == 0;
}

void blend(float* __restrict to, std::size_t to_stride, const float* __restrict from,
           std::size_t from_stride, std::size_t rows, const double* __restrict fraction,
           std::size_t count) noexcept {
    for (; rows > 0; --rows, to += to_stride, from += from_stride) {
        for (std::size_t i = 0; i < count; ++i)
            to[i] = blended(from[i], from[i + 1], fraction[i]);
    }
}

}  // namespace

const RowLoops row_loops_baseline{copy, find_positions, blend};

}  // namespace tavistro
