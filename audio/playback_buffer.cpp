#include "audio/playback_buffer.h"

#include <algorithm>
#include <cassert>
#include <limits>
#include <utility>

namespace tavistro {

namespace {

// Pull of the fill towards its target: this much speed for a buffer twice as full as wanted.
constexpr double fill_correction = 0.00035;
constexpr double lowest_ratio = 0.9955;
constexpr double highest_ratio = 1.0045;
// A single late block must not cost a new prebuffering.
constexpr std::uint64_t least_starve_limit = 3;

/// For counters that one thread at a time counts up: no other store comes between.
void count(std::atomic<std::uint64_t>& counter, std::uint64_t amount = 1) noexcept {
    counter.store(counter.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
}

}  // namespace

void PlaybackBuffer::configure(const PlaybackShape& shape) {
    assert(shape.block_frames >= 0);
    release();
    const auto capacity = static_cast<std::size_t>(static_cast<std::uint64_t>(shape.block_frames) *
                                                   shape.max_queue_blocks);
    PlanarRing ring(shape.channels, capacity);
    if (capacity != 0) origins_ = std::make_unique<Origin[]>(shape.max_queue_blocks);
    ring_ = std::move(ring);
    shape_ = shape;
}

void PlaybackBuffer::release() noexcept {
    shape_ = {};
    ring_ = {};
    origins_.reset();
    write_index_.value.store(0, std::memory_order_relaxed);
    read_index_.value.store(0, std::memory_order_relaxed);
    write_position_ = 0;
    read_position_ = 0;
    playing_ = false;
    starve_count_ = 0;
    frac_pos_ = 0.0;
    drift_.reset();
    counters_.clear();
    fill_statistics_.clear();
    queue_latency_.clear();
    server_to_output_.clear();
}

std::uint64_t PlaybackBuffer::fill() const noexcept {
    const std::uint64_t read = read_index_.value.load(std::memory_order_acquire);
    const std::uint64_t written = write_index_.value.load(std::memory_order_acquire);
    return std::min<std::uint64_t>(ring_.capacity(), written - read);
}

PlaybackBuffer::Origin& PlaybackBuffer::origin_at(std::size_t position) const noexcept {
    return origins_[position / static_cast<std::size_t>(shape_.block_frames)];
}

bool PlaybackBuffer::push_block(const IncomingBlock& block) noexcept {
    if (!admit(block)) {
        count(counters_.playbackDropped);
        return false;
    }
    const std::uint64_t written = write_index_.value.load(std::memory_order_relaxed);
    ring_.write(write_position_, block.samples);
    origin_at(write_position_).store(block);
    write_position_ = ring_.advanced(write_position_, block.frames);
    write_index_.value.store(written + block.frames, std::memory_order_release);
    count(counters_.received_blocks);
    fill_statistics_.record(fill());
    return true;
}

bool PlaybackBuffer::admit(const IncomingBlock& block) noexcept {
    if (!matches_shape(block)) return false;
    const std::uint64_t used = write_index_.value.load(std::memory_order_relaxed) -
                               read_index_.value.load(std::memory_order_acquire);
    if (used > ring_.capacity()) return false;
    if (block.frames > ring_.capacity() - used) {
        count(counters_.overruns);
        fill_statistics_.record(fill());
        return false;
    }
    return true;
}

bool PlaybackBuffer::matches_shape(const IncomingBlock& block) noexcept {
    if (block.frames != static_cast<std::uint16_t>(shape_.block_frames) ||
        block.sample_rate != shape_.sample_rate) {
        count(counters_.format_drops);
        return false;
    }
    return block.channels == ring_.channels() && block.frames <= ring_.capacity() &&
           block.samples.size() == ring_.channels() * block.frames && origins_;
}

void PlaybackBuffer::Origin::store(const IncomingBlock& block) noexcept {
    sequence.store(block.sequence, std::memory_order_relaxed);
    server_time_local_ns.store(block.server_time_local_ns, std::memory_order_relaxed);
    arrival_time_ns.store(block.arrival_time_ns, std::memory_order_relaxed);
    delivery_time_ns.store(block.delivery_time_ns, std::memory_order_relaxed);
}

bool PlaybackBuffer::render_period(PlaybackBlock& block, std::uint64_t period_start_ns) noexcept {
    const bool was_playing = playing_;
    double ratio_used = 1.0;
    std::uint64_t fill_found = 0;
    const bool rendered = render_block(block, ratio_used, fill_found);
    if (!rendered && was_playing) {
        count(counters_.underruns);
        return false;
    }
    count(counters_.renderedFrames, frames_of(1));
    if (rendered) {
        queue_latency_.record(period_start_ns, block.delivery_time_ns);
        server_to_output_.record(period_start_ns, block.server_time_local_ns);
    }
    return rendered;
}

bool PlaybackBuffer::render_block(PlaybackBlock& block, double& ratio_used,
                                  std::uint64_t& fill_found) noexcept {
    fill_found = fill();
    if (!enough_to_play(fill_found)) return false;
    if (ring_.channels() == 0 || ring_.capacity() == 0) return false;

    const double ratio = playout_ratio(fill_found);
    ratio_used = ratio;
    if (!describe(block)) return false;
    const std::span<float> output =
        std::span(block.samples).first(ring_.channels() * static_cast<std::size_t>(frames_of(1)));
    if (ratio == 1.0 && frac_pos_ == 0.0) {
        ring_.copy(read_position_, output);
    } else {
        ring_.interpolate({.position = read_position_,
                           .available = fill_found,
                           .ratio = ratio,
                           .offset = frac_pos_},
                          output);
    }
    consume(ratio, fill_found);
    count(counters_.dequeued_blocks);
    fill_statistics_.record(fill());
    return true;
}

bool PlaybackBuffer::enough_to_play(std::uint64_t fill_found) noexcept {
    if (!playing_) {
        if (fill_found < frames_of(shape_.prebuffer_blocks)) return false;
        playing_ = true;
    }
    if (fill_found >= frames_of(1)) {
        starve_count_ = 0;
        return true;
    }
    starve_count_ += 1;
    if (starve_count_ >= std::max(shape_.prebuffer_blocks, least_starve_limit)) {
        playing_ = false;
        frac_pos_ = 0.0;
    }
    return false;
}

double PlaybackBuffer::playout_ratio(std::uint64_t fill_found) const noexcept {
    const auto target = static_cast<double>(target_frames());
    if (target <= 0.0) return 1.0;
    const double ratio =
        drift_.pll_ratio() + (static_cast<double>(fill_found) - target) / target * fill_correction;
    return std::min(std::max(ratio, lowest_ratio), highest_ratio);
}

bool PlaybackBuffer::describe(PlaybackBlock& block) const noexcept {
    if (ring_.channels() > std::numeric_limits<std::uint16_t>::max()) return false;
    if (block.samples.size() < ring_.channels() * frames_of(1)) return false;
    const Origin& origin = origin_at(read_position_);
    block.sequence = origin.sequence.load(std::memory_order_relaxed);
    block.server_time_local_ns = origin.server_time_local_ns.load(std::memory_order_relaxed);
    block.arrival_time_ns = origin.arrival_time_ns.load(std::memory_order_relaxed);
    block.delivery_time_ns = origin.delivery_time_ns.load(std::memory_order_relaxed);
    block.sample_rate = shape_.sample_rate;
    block.frames = static_cast<std::uint16_t>(shape_.block_frames);
    block.channels = static_cast<std::uint16_t>(ring_.channels());
    return true;
}

void PlaybackBuffer::consume(double ratio, std::uint64_t fill_found) noexcept {
    frac_pos_ += static_cast<double>(shape_.block_frames) * ratio;
    const std::uint64_t whole = std::min(static_cast<std::uint64_t>(frac_pos_), fill_found);
    if (whole == 0) return;
    const std::uint64_t read = read_index_.value.load(std::memory_order_relaxed);
    read_index_.value.store(read + whole, std::memory_order_release);
    read_position_ = ring_.advanced(read_position_, static_cast<std::size_t>(whole));
    frac_pos_ -= static_cast<double>(whole);
}

}  // namespace tavistro
