#include "audio/playback_buffer.h"

#include <algorithm>
#include <array>
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

/// The two ring positions that an output frame lies between, and how far it is from the first.
struct Tap {
    std::size_t first;
    std::size_t second;
    double fraction;
};

// Small enough to stay in the nearest cache while every channel uses it.
constexpr std::size_t taps_at_once = 128;

void count(std::atomic<std::uint64_t>& counter, std::uint64_t amount = 1) noexcept {
    counter.fetch_add(amount, std::memory_order_relaxed);
}

}  // namespace

void PlaybackBuffer::configure(const PlaybackShape& shape) {
    assert(shape.block_frames >= 0);
    release();
    const auto capacity = static_cast<std::size_t>(static_cast<std::uint64_t>(shape.block_frames) *
                                                   shape.max_queue_blocks);
    std::vector<std::vector<float>> rings(shape.channels);
    for (auto& ring : rings)
        ring.resize(capacity);
    if (capacity != 0) origins_ = std::make_unique<FrameOrigin[]>(capacity);
    rings_ = std::move(rings);
    capacity_ = capacity;
    shape_ = shape;
}

void PlaybackBuffer::release() noexcept {
    shape_ = {};
    capacity_ = 0;
    rings_ = {};
    origins_.reset();
    write_index_.value.store(0, std::memory_order_relaxed);
    read_index_.value.store(0, std::memory_order_relaxed);
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
    return std::min<std::uint64_t>(capacity_, written - read);
}

PlaybackBuffer::RingRange PlaybackBuffer::range_at(std::uint64_t index,
                                                   std::size_t frames) const noexcept {
    const auto start = static_cast<std::size_t>(index % capacity_);
    const std::size_t until_wrap = std::min(frames, capacity_ - start);
    return {start, until_wrap, frames - until_wrap};
}

bool PlaybackBuffer::push_block(const IncomingBlock& block) noexcept {
    if (!admit(block)) {
        count(counters_.playbackDropped);
        return false;
    }
    const std::uint64_t written = write_index_.value.load(std::memory_order_relaxed);
    const RingRange range = range_at(written, block.frames);
    store_samples(block, range);
    store_origins(block, range);
    write_index_.value.store(written + block.frames, std::memory_order_release);
    count(counters_.received_blocks);
    fill_statistics_.record(fill());
    return true;
}

bool PlaybackBuffer::admit(const IncomingBlock& block) noexcept {
    if (!matches_shape(block)) return false;
    const std::uint64_t used = write_index_.value.load(std::memory_order_relaxed) -
                               read_index_.value.load(std::memory_order_acquire);
    if (used > capacity_) return false;
    if (block.frames > capacity_ - used) {
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
    return block.channels == rings_.size() && block.frames <= capacity_ &&
           block.samples.size() == rings_.size() * block.frames && origins_;
}

void PlaybackBuffer::store_samples(const IncomingBlock& block, const RingRange& range) noexcept {
    const float* source = block.samples.data();
    for (auto& ring : rings_) {
        std::copy_n(source, range.until_wrap, ring.data() + range.start);
        std::copy_n(source + range.until_wrap, range.after_wrap, ring.data());
        source += block.frames;
    }
}

void PlaybackBuffer::store_origins(const IncomingBlock& block, const RingRange& range) noexcept {
    const auto store = [&](std::size_t start, std::size_t frames) {
        for (FrameOrigin& origin : std::span(&origins_[start], frames)) {
            origin.sequence.store(block.sequence, std::memory_order_relaxed);
            origin.server_time_local_ns.store(block.server_time_local_ns,
                                              std::memory_order_relaxed);
            origin.arrival_time_ns.store(block.arrival_time_ns, std::memory_order_relaxed);
            origin.delivery_time_ns.store(block.delivery_time_ns, std::memory_order_relaxed);
        }
    };
    store(range.start, range.until_wrap);
    store(0, range.after_wrap);
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
    if (rings_.empty() || capacity_ == 0) return false;

    const std::uint64_t read_index = read_index_.value.load(std::memory_order_relaxed);
    const double ratio = playout_ratio(fill_found);
    ratio_used = ratio;
    if (!describe(block, read_index)) return false;
    if (ratio == 1.0 && frac_pos_ == 0.0)
        copy(block, read_index);
    else
        interpolate(block, read_index, ratio, fill_found);
    consume(read_index, ratio, fill_found);
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

bool PlaybackBuffer::describe(PlaybackBlock& block, std::uint64_t read_index) const noexcept {
    if (rings_.size() > std::numeric_limits<std::uint16_t>::max()) return false;
    if (block.samples.size() < rings_.size() * frames_of(1)) return false;
    const FrameOrigin& origin = origins_[static_cast<std::size_t>(read_index % capacity_)];
    block.sequence = origin.sequence.load(std::memory_order_relaxed);
    block.server_time_local_ns = origin.server_time_local_ns.load(std::memory_order_relaxed);
    block.arrival_time_ns = origin.arrival_time_ns.load(std::memory_order_relaxed);
    block.delivery_time_ns = origin.delivery_time_ns.load(std::memory_order_relaxed);
    block.sample_rate = shape_.sample_rate;
    block.frames = static_cast<std::uint16_t>(shape_.block_frames);
    block.channels = static_cast<std::uint16_t>(rings_.size());
    return true;
}

void PlaybackBuffer::copy(PlaybackBlock& block, std::uint64_t read_index) const noexcept {
    const auto frames = static_cast<std::size_t>(shape_.block_frames);
    const RingRange range = range_at(read_index, frames);
    float* output = block.samples.data();
    for (const auto& ring : rings_) {
        std::copy_n(ring.data() + range.start, range.until_wrap, output);
        std::copy_n(ring.data(), range.after_wrap, output + range.until_wrap);
        output += frames;
    }
}

void PlaybackBuffer::interpolate(PlaybackBlock& block, std::uint64_t read_index, double ratio,
                                 std::uint64_t fill_found) const noexcept {
    const auto frames = static_cast<std::size_t>(shape_.block_frames);
    const auto start = static_cast<std::size_t>(read_index % capacity_);
    const auto ring_position = [&](std::uint64_t offset) {
        const std::size_t position = start + static_cast<std::size_t>(offset);
        return position < capacity_ ? position : position - capacity_;
    };
    // The last buffered frame is held when the read would pass it.
    const auto tap_at = [&](std::size_t frame) -> Tap {
        const double position = static_cast<double>(frame) * ratio + frac_pos_;
        const auto whole = static_cast<std::uint64_t>(position);
        const std::uint64_t first = std::min(whole, fill_found - 1);
        const std::uint64_t second = std::min(first + 1, fill_found - 1);
        return {ring_position(first), ring_position(second), position - static_cast<double>(whole)};
    };

    std::array<Tap, taps_at_once> taps;
    for (std::size_t done = 0; done < frames; done += taps_at_once) {
        const std::size_t now = std::min(taps_at_once, frames - done);
        for (std::size_t i = 0; i < now; ++i)
            taps[i] = tap_at(done + i);
        float* output = block.samples.data() + done;
        for (const auto& ring : rings_) {
            for (std::size_t i = 0; i < now; ++i) {
                const float first = ring[taps[i].first];
                const float step = ring[taps[i].second] - first;
                output[i] = static_cast<float>(static_cast<double>(step) * taps[i].fraction +
                                               static_cast<double>(first));
            }
            output += frames;
        }
    }
}

void PlaybackBuffer::consume(std::uint64_t read_index, double ratio,
                             std::uint64_t fill_found) noexcept {
    frac_pos_ += static_cast<double>(shape_.block_frames) * ratio;
    const std::uint64_t whole = std::min(static_cast<std::uint64_t>(frac_pos_), fill_found);
    if (whole == 0) return;
    read_index_.value.store(read_index + whole, std::memory_order_release);
    frac_pos_ -= static_cast<double>(whole);
}

}  // namespace tavistro
