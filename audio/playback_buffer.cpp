#include "audio/playback_buffer.h"

#include <algorithm>
#include <cassert>
#include <limits>
#include <utility>

#include "common/drift_law.h"

namespace tavistro {

namespace {

// A single late block must not restart prebuffering.
constexpr std::uint64_t least_starve_limit = 3;

/// Only for counters with one writer at a time: load and store are separate. Relaxed: see
/// PlaybackCounters.
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
    producer_.write_index.store(0, std::memory_order_relaxed);
    device_.read_index.store(0, std::memory_order_relaxed);
    producer_.position = 0;
    device_.position = 0;
    device_.playing = false;
    device_.starve_count = 0;
    device_.frac_pos = 0.0;
    drift_.reset();
    counters_.clear();
    fill_statistics_.clear();
    queue_latency_.clear();
    server_to_output_.clear();
}

std::uint64_t PlaybackBuffer::fill() const noexcept {
    const std::uint64_t read = device_.read_index.load(std::memory_order_acquire);
    const std::uint64_t written = producer_.write_index.load(std::memory_order_acquire);
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
    const std::uint64_t written = producer_.write_index.load(std::memory_order_relaxed);
    ring_.write(producer_.position, block.samples);
    origin_at(producer_.position).store(block);
    producer_.position = ring_.advanced(producer_.position, block.frames);
    producer_.write_index.store(written + block.frames, std::memory_order_release);
    count(counters_.received_blocks);
    fill_statistics_.record(fill());
    return true;
}

bool PlaybackBuffer::admit(const IncomingBlock& block) noexcept {
    if (!matches_shape(block)) return false;
    const std::uint64_t used = producer_.write_index.load(std::memory_order_relaxed) -
                               device_.read_index.load(std::memory_order_acquire);
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
    const bool was_playing = device_.playing;
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
    if (ratio == 1.0 && device_.frac_pos == 0.0) {
        ring_.copy(device_.position, output);
    } else {
        ring_.interpolate({.position = device_.position,
                           .available = fill_found,
                           .ratio = ratio,
                           .offset = device_.frac_pos},
                          output);
    }
    consume(ratio, fill_found);
    count(counters_.dequeued_blocks);
    fill_statistics_.record(fill());
    return true;
}

bool PlaybackBuffer::enough_to_play(std::uint64_t fill_found) noexcept {
    if (!device_.playing) {
        if (fill_found < frames_of(shape_.prebuffer_blocks)) return false;
        device_.playing = true;
    }
    if (fill_found >= frames_of(1)) {
        device_.starve_count = 0;
        return true;
    }
    device_.starve_count += 1;
    if (device_.starve_count >= std::max(shape_.prebuffer_blocks, least_starve_limit)) {
        device_.playing = false;
        device_.frac_pos = 0.0;
    }
    return false;
}

double PlaybackBuffer::playout_ratio(std::uint64_t fill_found) const noexcept {
    const auto target = static_cast<double>(target_frames());
    if (target <= 0.0) return 1.0;
    return read_ratio(drift_.pll_ratio(), static_cast<double>(fill_found), target);
}

bool PlaybackBuffer::describe(PlaybackBlock& block) const noexcept {
    if (ring_.channels() > std::numeric_limits<std::uint16_t>::max()) return false;
    if (block.samples.size() < ring_.channels() * frames_of(1)) return false;
    const Origin& origin = origin_at(device_.position);
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
    device_.frac_pos += static_cast<double>(shape_.block_frames) * ratio;
    const std::uint64_t whole = std::min(static_cast<std::uint64_t>(device_.frac_pos), fill_found);
    if (whole == 0) return;
    const std::uint64_t read = device_.read_index.load(std::memory_order_relaxed);
    device_.read_index.store(read + whole, std::memory_order_release);
    device_.position = ring_.advanced(device_.position, static_cast<std::size_t>(whole));
    device_.frac_pos -= static_cast<double>(whole);
}

}  // namespace tavistro
