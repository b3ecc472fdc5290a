#include "common/planar_ring.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstring>
#include <limits>

namespace tavistro {

namespace {

constexpr std::size_t line_samples = 16;  // of a cache line
// Positions at once: few enough to stay in the nearest cache while every channel uses them.
constexpr std::size_t chunk_frames = 128;

struct Rows {
    const float* first;
    std::size_t count;
    std::size_t stride;    ///< samples from one row to the next
    std::size_t capacity;  ///< samples of each
};

/// Where output frames lie between the frames of a ring.
struct Positions {
    std::array<std::int32_t, chunk_frames> whole;
    std::array<double, chunk_frames> fraction;
};

TAVISTRO_SIMD_BODY void find_positions(Positions& positions, std::size_t first, std::size_t count,
                                       const RingRead& read) noexcept {
    const auto start = static_cast<std::int32_t>(first);
    for (std::int32_t i = 0; i < static_cast<std::int32_t>(count); ++i) {
        const double position = static_cast<double>(start + i) * read.ratio + read.offset;
        const auto whole = static_cast<std::int32_t>(position);
        positions.whole[static_cast<std::size_t>(i)] = whole;
        positions.fraction[static_cast<std::size_t>(i)] = position - static_cast<double>(whole);
    }
}

/// How many of the frames, at least one, each lie one ring frame behind the one before.
TAVISTRO_SIMD_BODY std::size_t frames_in_step(const std::int32_t* whole,
                                              std::size_t count) noexcept {
    std::int32_t deviation = 0;
    for (std::int32_t i = 0; i < static_cast<std::int32_t>(count); ++i)
        deviation |= whole[i] ^ (whole[0] + i);
    if (deviation == 0) return count;
    std::size_t in_step = 1;
    while (whole[in_step] == whole[in_step - 1] + 1)
        ++in_step;
    return in_step;
}

TAVISTRO_SIMD_BODY float between(float first, float second, double fraction) noexcept {
    return static_cast<float>(static_cast<double>(second - first) * fraction +
                              static_cast<double>(first));
}

TAVISTRO_SIMD_BODY void blend(float* __restrict to, const float* __restrict from,
                              const double* __restrict fraction, std::size_t count) noexcept {
    for (std::size_t i = 0; i < count; ++i)
        to[i] = between(from[i], from[i + 1], fraction[i]);
}

TAVISTRO_SIMD_BODY void interpolate_rows(const Rows& rows, const RingRead& read, float* block,
                                         std::size_t frames) noexcept {
    constexpr std::uint64_t most = std::numeric_limits<std::int32_t>::max();
    const auto last = static_cast<std::int32_t>(std::min(read.available - 1, most));
    Positions positions;
    for (std::size_t done = 0; done < frames; done += chunk_frames) {
        const std::size_t count = std::min(chunk_frames, frames - done);
        find_positions(positions, done, count, read);
        for (std::size_t i = 0; i < count;) {
            const std::int32_t whole = std::min(positions.whole[i], last);
            std::size_t at = read.position + static_cast<std::size_t>(whole);
            if (at >= rows.capacity) at -= rows.capacity;
            // Frames before the ring's end, or the held last frame, comes between two neighbours.
            const std::size_t undivided = std::min(
                {count - i, static_cast<std::size_t>(last - whole), rows.capacity - 1 - at});
            const float* row = rows.first;
            float* to = block + done + i;
            if (undivided == 0) {
                const std::size_t next = whole == last ? at : at + 1 < rows.capacity ? at + 1 : 0;
                for (std::size_t c = 0; c < rows.count; ++c, row += rows.stride, to += frames)
                    *to = between(row[at], row[next], positions.fraction[i]);
                ++i;
                continue;
            }
            const std::size_t run = frames_in_step(&positions.whole[i], undivided);
            for (std::size_t c = 0; c < rows.count; ++c, row += rows.stride, to += frames)
                blend(to, row + at, &positions.fraction[i], run);
            i += run;
        }
    }
}

/// Rows are mostly too short for a call of memcpy to be worth it.
TAVISTRO_SIMD_BODY void copy_rows(float* to, std::size_t to_stride, const float* from,
                                  std::size_t from_stride, std::size_t rows,
                                  std::size_t count) noexcept {
    constexpr std::size_t short_row = 256;
    constexpr std::size_t step = 8;
    for (std::size_t r = 0; r < rows; ++r, to += to_stride, from += from_stride) {
        if (count > short_row) {
            std::memcpy(to, from, count * sizeof(float));
            continue;
        }
        std::size_t i = 0;
        for (; i + step <= count; i += step)
            std::memcpy(to + i, from + i, step * sizeof(float));
        for (; i < count; ++i)
            to[i] = from[i];
    }
}

}  // namespace

struct PlanarRing::Kernels {
    void (*copy)(float* to, std::size_t to_stride, const float* from, std::size_t from_stride,
                 std::size_t rows, std::size_t count) noexcept;
    void (*interpolate)(const Rows& rows, const RingRead& read, float* block,
                        std::size_t frames) noexcept;
};

namespace {

void copy_baseline(float* to, std::size_t to_stride, const float* from, std::size_t from_stride,
                   std::size_t rows, std::size_t count) noexcept {
    copy_rows(to, to_stride, from, from_stride, rows, count);
}

TAVISTRO_AVX2 void copy_avx2(float* to, std::size_t to_stride, const float* from,
                             std::size_t from_stride, std::size_t rows,
                             std::size_t count) noexcept {
    copy_rows(to, to_stride, from, from_stride, rows, count);
}

void interpolate_baseline(const Rows& rows, const RingRead& read, float* block,
                          std::size_t frames) noexcept {
    interpolate_rows(rows, read, block, frames);
}

TAVISTRO_AVX2 void interpolate_avx2(const Rows& rows, const RingRead& read, float* block,
                                    std::size_t frames) noexcept {
    interpolate_rows(rows, read, block, frames);
}

/// Samples from one row to the next. An odd number of cache lines, so that the same frame of all
/// rows does not compete for one place in the cache.
std::size_t stride_for(std::size_t capacity) {
    const std::size_t lines = capacity / line_samples + 1;
    return (lines | 1) * line_samples;
}

}  // namespace

const PlanarRing::Kernels PlanarRing::kernels_of[] = {
    {copy_baseline, interpolate_baseline},
    {copy_avx2, interpolate_avx2},
};

PlanarRing::PlanarRing(std::size_t channels, std::size_t capacity, SimdLevel level)
    : kernels_(&kernels_of[static_cast<std::size_t>(level)]),
      channels_(channels),
      capacity_(capacity),
      stride_(stride_for(capacity)),
      samples_(channels * stride_) {}

void PlanarRing::write(std::size_t position, std::span<const float> block) noexcept {
    if (block.empty()) return;
    const std::size_t frames = block.size() / channels_;
    const std::size_t until_end = std::min(frames, capacity_ - position);
    float* const rows = samples_.data();
    kernels_->copy(rows + position, stride_, block.data(), frames, channels_, until_end);
    if (until_end < frames)
        kernels_->copy(rows, stride_, block.data() + until_end, frames, channels_,
                       frames - until_end);
}

void PlanarRing::copy(std::size_t position, std::span<float> block) const noexcept {
    if (block.empty()) return;
    const std::size_t frames = block.size() / channels_;
    const std::size_t until_end = std::min(frames, capacity_ - position);
    const float* const rows = samples_.data();
    kernels_->copy(block.data(), frames, rows + position, stride_, channels_, until_end);
    if (until_end < frames)
        kernels_->copy(block.data() + until_end, frames, rows, stride_, channels_,
                       frames - until_end);
}

void PlanarRing::interpolate(const RingRead& read, std::span<float> block) const noexcept {
    if (block.empty()) return;
    kernels_->interpolate({samples_.data(), channels_, stride_, capacity_}, read, block.data(),
                          block.size() / channels_);
}

}  // namespace tavistro
