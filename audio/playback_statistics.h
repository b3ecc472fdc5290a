// What the playback buffer counts and measures for the player's reports.
#pragma once

#include <atomic>
#include <cstdint>

#include "audio/playback_block.h"
#include "platform/realtime.h"

namespace tavistro {

/// Totals since the start of the player. Each is counted by one side of the buffer alone, the
/// producer or the device thread; any thread reads.
struct PlaybackCounters {
    std::atomic<std::uint64_t> received_blocks{0};
    std::atomic<std::uint64_t> dequeued_blocks{0};
    std::atomic<std::uint64_t> renderedFrames{0};
    std::atomic<std::uint64_t> underruns{0};
    std::atomic<std::uint64_t> overruns{0};
    std::atomic<std::uint64_t> playbackDropped{0};
    std::atomic<std::uint64_t> format_drops{0};

    void clear() noexcept;
};

/// Current, lowest and highest fill in frames. Any thread; lock-free.
///
/// A stored minimum of 0 counts as "none yet" and is replaced by the next fill, so after the buffer
/// ran empty the minimum is the smallest fill since then.
class FillStatistics {
  public:
    struct Range {
        std::uint64_t current;
        std::uint64_t minFrames;
        std::uint64_t maxFrames;
    };

    void clear() noexcept;
    TAVISTRO_REALTIME void record(std::uint64_t fill) noexcept;
    /// The range since the last take(); the next one starts at the current fill.
    Range take() noexcept;

  private:
    std::atomic<std::uint64_t> current_{0};
    std::atomic<std::uint64_t> minimum_{0};
    std::atomic<std::uint64_t> maximum_{0};
};

/// Microseconds between an instant of a block and its playing. Any thread reads.
class LatencyStatistics {
  public:
    void clear() noexcept;
    /// Ignored when either time is 0 or the block's lies in the future.
    TAVISTRO_REALTIME void record(std::uint64_t now_ns, std::uint64_t block_time_ns) noexcept;
    std::uint64_t last_us() const noexcept { return last_us_.load(std::memory_order_relaxed); }
    std::uint64_t max_us() const noexcept { return max_us_.load(std::memory_order_relaxed); }

  private:
    std::atomic<std::uint64_t> last_us_{0};
    std::atomic<std::uint64_t> max_us_{0};
};

}  // namespace tavistro
