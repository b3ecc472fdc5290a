// Did the audio that was sent come back, after how long, and was it the same?
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "tools/server/server_options.h"

namespace tavistro::server {

/// Everything measured so far.
struct RoundTripReport {
    std::uint64_t windows = 0;  ///< in which something came back
    std::optional<std::size_t> last_lag_frames;
    double correlation_min = 0;  ///< of the windows, each at its own lag between frames
    double correlation_median = 0;
    double correlation_max = 0;
    std::uint64_t exact_blocks = 0;     ///< bit for bit what was sent, at their window's lag
    std::uint64_t compared_blocks = 0;  ///< in which both sides have sound
    std::uint64_t silent_blocks = 0;    ///< in which nothing came back of what was sent
};

/// Compares two channels of one timeline block by block. A window is measured for itself, so that a
/// lag that moves slowly does no harm. Lags reach 300 blocks or two seconds, whichever is less.
/// A window costs some ten million operations once a second: not for the block clock's thread.
/// Not thread-safe.
class RoundTripMeter {
  public:
    explicit RoundTripMeter(const StreamFormat& format);

    /// The next block of both channels, `frames` samples each. True when it completed a window,
    /// which was measured: the report is a new one.
    bool feed(std::span<const float> sent, std::span<const float> returned);
    /// The timeline has a hole: what was collected does not fit what comes.
    void restart();
    /// Forgets the past but the totals.
    void change_format(const StreamFormat& format);

    RoundTripReport report() const;

  private:
    void measure();
    std::optional<std::size_t> find_lag() const;
    /// Mean correlation of the window's pieces, each at its own lag near `lag`, by their energy.
    double likeness(std::size_t lag) const;
    /// Counts of the window's blocks at a lag.
    struct BlockCounts {
        std::uint64_t exact = 0;
        std::uint64_t compared = 0;
        std::uint64_t silent = 0;
    };
    BlockCounts compare_blocks(std::size_t lag) const;

    StreamFormat format_;
    std::size_t max_lag_ = 0;      ///< frames
    std::size_t window_ = 0;       ///< frames, whole blocks
    std::vector<float> sent_;      ///< max_lag_ older frames, then those of the window
    std::vector<float> returned_;  ///< the window
    std::optional<std::size_t> known_lag_;
    bool heard_ = false;  ///< something has come back before
    RoundTripReport totals_;
    std::vector<double> correlations_;  ///< one per window
};

}  // namespace tavistro::server
