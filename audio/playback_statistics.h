// Counters and measurements of the playback buffer for the player's reports.
#pragma once

#include <atomic>
#include <cstdint>

#include "audio/playback_block.h"
#include "platform/realtime.h"

namespace tavistro {

/// Totals since the start of the player. Each has one writer, the producer or the device thread;
/// any thread may read. Relaxed: nobody concludes from one of them what another is or what memory
/// holds. clear() runs while both writers stand still.
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

/// Current, lowest and highest fill level in frames. Any thread; lock-free. Relaxed: levels for
/// display, each by itself. The frames are passed on by the buffer's indices.
///
/// A stored minimum of 0 means "none yet" and is replaced by the next fill level. After the buffer
/// has run empty, the minimum is therefore the lowest level since then.
class FillStatistics {
  public:
    struct Range {
        std::uint64_t current;
        std::uint64_t minFrames;
        std::uint64_t maxFrames;
    };

    void clear() noexcept;
    TAVISTRO_REALTIME void record(std::uint64_t fill) noexcept;
    /// Returns the range since the last take(); the next range starts at the current fill level.
    Range take() noexcept;

  private:
    std::atomic<std::uint64_t> current_{0};
    std::atomic<std::uint64_t> minimum_{0};
    std::atomic<std::uint64_t> maximum_{0};
};

/// Microseconds from a given time of a block to its playback. Any thread may read. Relaxed: two
/// numbers for display, each by itself.
class LatencyStatistics {
  public:
    void clear() noexcept;
    /// Ignored if either time is 0 or `block_time_ns` is later than `now_ns`.
    TAVISTRO_REALTIME void record(std::uint64_t now_ns, std::uint64_t block_time_ns) noexcept;
    std::uint64_t last_us() const noexcept { return last_us_.load(std::memory_order_relaxed); }
    std::uint64_t max_us() const noexcept { return max_us_.load(std::memory_order_relaxed); }

  private:
    std::atomic<std::uint64_t> last_us_{0};
    std::atomic<std::uint64_t> max_us_{0};
};

}  // namespace tavistro
