// The playback buffer between the server clock and the device clock: blocks are pushed as the
// network delivers them, and one period of frames is read at each device period.
//
// push_block() is the producer (one thread at a time, ensured by the player's queue mutex),
// render_period() the consumer (the device thread, without a lock). Playback starts when
// `prebuffer_blocks` periods are buffered, and returns to prebuffering after several consecutive
// periods without data. During playback common/drift_law.h sets the read ratio: the drift estimate
// plus a small correction towards the target fill level.
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

/// Sizes of the buffer, fixed while a device is open. Frames are per channel.
struct PlaybackShape {
    std::int32_t block_frames = 0;  ///< frames per device period
    std::uint32_t sample_rate = 0;  ///< Hz
    std::size_t channels = 0;
    std::uint64_t prebuffer_blocks = 0;
    std::uint64_t target_queue_depth = 0;  ///< blocks
    std::uint64_t max_queue_blocks = 0;
};

/// A block from the network; `samples` are planar.
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
    /// Allocates an empty buffer of these sizes in the prebuffering state and resets all
    /// statistics. Throws std::bad_alloc or std::length_error if memory runs out. Not while
    /// producer or consumer are active.
    void configure(const PlaybackShape& shape);
    /// Frees the rings: every block is then rejected and nothing plays.
    void release() noexcept;

    /// Appends one block. Returns false, counts the reason and changes nothing else if the block's
    /// format differs from the buffer's or too few frames are free. Does not allocate.
    bool push_block(const IncomingBlock& block) noexcept;

    /// Calls render_block() and counts an underrun, or the rendered frames and the block's
    /// latencies. `period_start_ns` is the nanosecond clock. Device thread.
    TAVISTRO_REALTIME bool render_period(PlaybackBlock& block,
                                         std::uint64_t period_start_ns) noexcept;
    /// Reads one period into `block`, whose samples hold channels * block_frames values. Returns
    /// false if there is nothing to play; the caller then plays silence. Always sets `fill_found`;
    /// sets `ratio_used` (buffered frames per output frame) if it renders. Device thread.
    TAVISTRO_REALTIME bool render_block(PlaybackBlock& block, double& ratio_used,
                                        std::uint64_t& fill_found) noexcept;

    /// Buffered frames. Producer or device thread.
    std::uint64_t fill() const noexcept;
    /// False while prebuffering. Device thread.
    bool playing() const noexcept { return device_.playing; }

    const PlaybackShape& shape() const noexcept { return shape_; }
    /// Target fill level of the drift control.
    std::uint64_t target_frames() const noexcept { return frames_of(shape_.target_queue_depth); }

    // Any thread.
    DriftEstimator& drift() noexcept { return drift_; }
    const DriftEstimator& drift() const noexcept { return drift_; }
    const PlaybackCounters& counters() const noexcept { return counters_; }
    FillStatistics& fill_statistics() noexcept { return fill_statistics_; }
    /// From delivery of a block to its playback.
    const LatencyStatistics& queue_latency() const noexcept { return queue_latency_; }
    /// From a block's server time to its playback.
    const LatencyStatistics& server_to_output() const noexcept { return server_to_output_; }

  private:
    /// Sequence and times of one buffered block. Blocks have the length of a period and the ring
    /// holds a whole number of them, so blocks always have the same positions. Relaxed: like the
    /// samples, they are stored before write_index and read before read_index.
    struct Origin {
        void store(const IncomingBlock& block) noexcept;

        std::atomic<std::uint32_t> sequence{0};
        std::atomic<std::uint64_t> server_time_local_ns{0};
        std::atomic<std::uint64_t> arrival_time_ns{0};
        std::atomic<std::uint64_t> delivery_time_ns{0};
    };
    // Each side stores only to its own cache line. An index is a monotonic frame counter and the
    // only word that the other side reads: stored with release, loaded with acquire. Relaxed: a
    // side's loads of its own index; producers take turns under the player's mutex.
    struct alignas(cache_line_bytes) ProducerSide {
        std::atomic<std::uint64_t> write_index{0};  ///< stored after the frames before it
        std::size_t position = 0;                   ///< ring position of write_index
    };
    struct alignas(cache_line_bytes) DeviceSide {
        std::atomic<std::uint64_t> read_index{0};  ///< stored after the frames have been read
        std::size_t position = 0;                  ///< ring position of read_index
        bool playing = false;
        std::uint64_t starve_count = 0;  ///< consecutive periods without a block during playback
        double frac_pos = 0.0;           ///< fraction of the read position, in frames
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
