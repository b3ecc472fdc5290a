// The place where the server's clock meets the device's: blocks go in as the network delivers them,
// exactly one period's frames come out whenever the device asks.
//
// push_block() is the producer's side (one thread at a time: the player's queue mutex sees to it),
// render_period() the consumer's (the device thread, without a lock). Playing starts once
// `prebuffer_blocks` periods are buffered and falls back to prebuffering after a run of periods
// without data. While playing, common/drift_law.h gives the read speed: the drift estimate plus a
// small correction towards a target fill.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "audio/drift_estimator.h"
#include "audio/playback_block.h"
#include "audio/playback_statistics.h"
#include "common/cache_line.h"
#include "common/planar_ring.h"
#include "platform/realtime.h"

namespace tavistro {

/// Sizes of a buffer, fixed while a device is open. All frames are per channel.
struct PlaybackShape {
    std::int32_t block_frames = 0;  ///< frames per device period
    std::uint32_t sample_rate = 0;  ///< Hz
    std::size_t channels = 0;
    std::uint64_t prebuffer_blocks = 0;
    std::uint64_t target_queue_depth = 0;  ///< blocks
    std::uint64_t max_queue_blocks = 0;
};

/// One block as the network delivers it; `samples` are planar.
struct IncomingBlock {
    std::uint32_t sequence = 0;
    std::uint32_t sample_rate = 0;
    std::uint16_t frames = 0;
    std::uint16_t channels = 0;
    std::span<const float> samples;
    std::uint64_t server_time_local_ns = 0;
    std::uint64_t arrival_time_ns = 0;
    std::uint64_t delivery_time_ns = 0;
};

class PlaybackBuffer {
  public:
    /// Empty, silent and prebuffering with these sizes, every statistic 0. Throws std::bad_alloc or
    /// std::length_error when memory does not suffice. Neither side may be inside.
    void configure(const PlaybackShape& shape);
    /// As never configured: frees the rings, so that every block is rejected and nothing plays.
    void release() noexcept;

    /// Appends one block. False, with the reason counted, when its shape is not the buffer's or too
    /// few frames are free; what is buffered stays untouched then. Bulk copies, no allocation.
    bool push_block(const IncomingBlock& block) noexcept;

    /// render_block() with the accounting of a period: an underrun, or rendered frames and the
    /// block's latencies. `period_start_ns` is the nanosecond clock. Device thread.
    TAVISTRO_REALTIME bool render_period(PlaybackBlock& block,
                                         std::uint64_t period_start_ns) noexcept;
    /// Takes one period out of the buffer into `block`, whose samples hold channels * block_frames
    /// values. False when there is nothing to play: the caller plays silence. `fill_found` is
    /// always set, `ratio_used` (buffered frames per output frame) when it came to rendering.
    /// Device thread.
    TAVISTRO_REALTIME bool render_block(PlaybackBlock& block, double& ratio_used,
                                        std::uint64_t& fill_found) noexcept;

    /// Buffered frames. Producer or device thread.
    std::uint64_t fill() const noexcept;
    /// False while prebuffering. Device thread.
    bool playing() const noexcept { return device_.playing; }

    const PlaybackShape& shape() const noexcept { return shape_; }
    /// Fill that drift control aims at.
    std::uint64_t target_frames() const noexcept { return frames_of(shape_.target_queue_depth); }

    // Any thread.
    DriftEstimator& drift() noexcept { return drift_; }
    const DriftEstimator& drift() const noexcept { return drift_; }
    const PlaybackCounters& counters() const noexcept { return counters_; }
    FillStatistics& fill_statistics() noexcept { return fill_statistics_; }
    /// Delivery of a block to its playing.
    const LatencyStatistics& queue_latency() const noexcept { return queue_latency_; }
    /// The server's time of a block to its playing.
    const LatencyStatistics& server_to_output() const noexcept { return server_to_output_; }

  private:
    /// Where the frames of one buffered block came from. Blocks have the length of a period and
    /// the ring holds whole ones, so that a block's place never changes.
    struct Origin {
        void store(const IncomingBlock& block) noexcept;

        std::atomic<std::uint32_t> sequence{0};
        std::atomic<std::uint64_t> server_time_local_ns{0};
        std::atomic<std::uint64_t> arrival_time_ns{0};
        std::atomic<std::uint64_t> delivery_time_ns{0};
    };
    // What a side stores in every block lies on a cache line that the other side never stores to.
    // An index is a frame counter that only grows, and the one word that the other side reads.
    struct alignas(cache_line_bytes) ProducerSide {
        std::atomic<std::uint64_t> write_index{0};  ///< stored after the frames that it covers
        std::size_t position = 0;                   ///< write_index in the ring
    };
    struct alignas(cache_line_bytes) DeviceSide {
        std::atomic<std::uint64_t> read_index{0};  ///< stored once the frames have been read
        std::size_t position = 0;                  ///< read_index in the ring
        bool playing = false;
        std::uint64_t starve_count = 0;  ///< periods in a row without a block while playing
        double frac_pos = 0.0;           ///< read position between two frames
    };
    static_assert(sizeof(ProducerSide) == cache_line_bytes &&
                  sizeof(DeviceSide) == cache_line_bytes);

    std::uint64_t frames_of(std::uint64_t blocks) const noexcept {
        return static_cast<std::uint64_t>(shape_.block_frames) * blocks;
    }
    Origin& origin_at(std::size_t position) const noexcept;

    bool admit(const IncomingBlock& block) noexcept;
    bool matches_shape(const IncomingBlock& block) noexcept;

    bool enough_to_play(std::uint64_t fill_found) noexcept;
    double playout_ratio(std::uint64_t fill_found) const noexcept;
    bool describe(PlaybackBlock& block) const noexcept;
    void consume(double ratio, std::uint64_t fill_found) noexcept;

    PlaybackShape shape_;
    PlanarRing ring_;
    std::unique_ptr<Origin[]> origins_;  ///< one per block of the ring

    ProducerSide producer_;
    DeviceSide device_;

    DriftEstimator drift_;
    PlaybackCounters counters_;
    FillStatistics fill_statistics_;
    LatencyStatistics queue_latency_;
    LatencyStatistics server_to_output_;
};

}  // namespace tavistro
