#include "tools/server/block_schedule.h"

namespace tavistro::server {

namespace {

constexpr std::uint64_t ns_per_second = 1'000'000'000;

/// Converts whole seconds and the remainder separately, so that no product overflows.
std::uint64_t duration_ns(std::uint64_t frames, std::uint32_t sample_rate) noexcept {
    return frames / sample_rate * ns_per_second +
           frames % sample_rate * ns_per_second / sample_rate;
}

}  // namespace

BlockSchedule::BlockSchedule(const StreamFormat& format, std::uint64_t start_ns,
                             std::uint32_t first_sequence) noexcept
    : format_(format), base_ns_(start_ns), sequence_(first_sequence) {}

BlockStamp BlockSchedule::next() const noexcept {
    return {.sequence = sequence_,
            .index = index_,
            .frame_position = frame_position_,
            .time_ns = base_ns_ + duration_ns(since_base_ * format_.frames, format_.sample_rate)};
}

std::uint64_t BlockSchedule::due_blocks(std::uint64_t now_ns) const noexcept {
    const std::uint64_t next_ns = next().time_ns;
    if (now_ns < next_ns) return 0;
    const std::uint64_t late_ns = now_ns - next_ns;
    const std::uint64_t late_frames = late_ns / ns_per_second * format_.sample_rate +
                                      late_ns % ns_per_second * format_.sample_rate / ns_per_second;
    return 1 + late_frames / format_.frames;
}

void BlockSchedule::advance(std::uint64_t blocks) noexcept {
    since_base_ += blocks;
    index_ += blocks;
    sequence_ += static_cast<std::uint32_t>(blocks);
    frame_position_ += blocks * format_.frames;
}

void BlockSchedule::change_format(const StreamFormat& format) noexcept {
    move_to(next().time_ns);
    format_ = format;
}

void BlockSchedule::move_to(std::uint64_t next_ns) noexcept {
    base_ns_ = next_ns;
    since_base_ = 0;
}

std::uint32_t sequence_of_wall_clock(std::uint64_t unix_ms, const StreamFormat& format) noexcept {
    return static_cast<std::uint32_t>(unix_ms * format.sample_rate / (1000ULL * format.frames));
}

}  // namespace tavistro::server
