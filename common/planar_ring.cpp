#include "common/planar_ring.h"

#include <algorithm>
#include <limits>

namespace tavistro {

namespace {

constexpr std::size_t line_samples = cache_line_bytes / sizeof(float);

/// Samples from one row to the next. An odd number of cache lines, so that the same frame of all
/// rows does not compete for one place in the cache.
std::size_t stride_for(std::size_t capacity) {
    const std::size_t lines = capacity / line_samples + 1;
    return (lines | 1) * line_samples;
}

/// How many frames from one on, at least itself, each lie one ring frame behind the one before.
std::size_t frames_in_step(const std::int32_t* whole, std::size_t count) noexcept {
    std::size_t in_step = 1;
    while (in_step < count && whole[in_step] == whole[in_step - 1] + 1)
        ++in_step;
    return in_step;
}

}  // namespace

PlanarRing::PlanarRing(std::size_t channels, std::size_t capacity, SimdLevel level)
    : loops_(&row_loops(level)),
      channels_(channels),
      capacity_(capacity),
      stride_(stride_for(capacity)),
      samples_(channels * stride_) {}

void PlanarRing::write(std::size_t position, std::span<const float> block) noexcept {
    if (block.empty()) return;
    const std::size_t frames = block.size() / channels_;
    const std::size_t until_end = std::min(frames, capacity_ - position);
    float* const rows = samples_.data();
    loops_->copy(rows + position, stride_, block.data(), frames, channels_, until_end);
    if (until_end < frames)
        loops_->copy(rows, stride_, block.data() + until_end, frames, channels_,
                     frames - until_end);
}

void PlanarRing::copy(std::size_t position, std::span<float> block) const noexcept {
    if (block.empty()) return;
    const std::size_t frames = block.size() / channels_;
    const std::size_t until_end = std::min(frames, capacity_ - position);
    const float* const rows = samples_.data();
    loops_->copy(block.data(), frames, rows + position, stride_, channels_, until_end);
    if (until_end < frames)
        loops_->copy(block.data() + until_end, frames, rows, stride_, channels_,
                     frames - until_end);
}

void PlanarRing::interpolate(const RingRead& read, std::span<float> block) const noexcept {
    if (block.empty()) return;
    const std::size_t frames = block.size() / channels_;
    RingPositions positions;
    for (std::size_t done = 0; done < frames; done += RingPositions::capacity) {
        const std::size_t count = std::min(RingPositions::capacity, frames - done);
        const bool in_step = loops_->find_positions(positions, static_cast<std::int32_t>(done),
                                                    count, read.ratio, read.offset);
        for (std::size_t i = 0; i < count;) {
            const std::size_t wanted =
                in_step ? count - i : frames_in_step(&positions.whole[i], count - i);
            i += interpolate_run(read, positions, i, wanted, block.data() + done + i, frames);
        }
    }
}

std::size_t PlanarRing::interpolate_run(const RingRead& read, const RingPositions& positions,
                                        std::size_t i, std::size_t wanted, float* to,
                                        std::size_t to_stride) const noexcept {
    constexpr std::uint64_t most = std::numeric_limits<std::int32_t>::max();
    const auto last = static_cast<std::int32_t>(std::min(read.available - 1, most));
    const std::int32_t whole = std::min(positions.whole[i], last);
    const std::size_t first = advanced(read.position, static_cast<std::size_t>(whole));
    const float* const row = samples_.data();
    // None of these pairs crosses the ring's end or the held last frame.
    const std::size_t run =
        std::min({wanted, static_cast<std::size_t>(last - whole), capacity_ - 1 - first});
    if (run == 0) {
        const std::size_t second = whole == last ? first : advanced(first, 1);
        for (std::size_t c = 0; c < channels_; ++c) {
            const float* const frames = row + c * stride_;
            to[c * to_stride] = blended(frames[first], frames[second], positions.fraction[i]);
        }
        return 1;
    }
    loops_->blend(to, to_stride, row + first, stride_, channels_, &positions.fraction[i], run);
    return run;
}

}  // namespace tavistro
