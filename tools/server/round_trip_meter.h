// Measures the round trip of audio that clients send back: delay, correlation and bit-exact blocks.
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
    std::uint64_t windows = 0;  ///< with a measured correlation
    std::optional<std::size_t> last_lag_frames;
    double correlation_min = 0;  ///< over the windows, each at its own interpolated lag
    double correlation_median = 0;
    double correlation_max = 0;
    std::uint64_t exact_blocks = 0;     ///< returned bit-exact, at the lag of their window
    std::uint64_t compared_blocks = 0;  ///< not silent, neither as sent nor as returned
    std::uint64_t silent_blocks = 0;    ///< returned silent although audio was sent
};

/// Compares two channels block by block. Each window of about one second is measured separately, so
/// the lag may drift slowly. The longest lag is 300 blocks or two seconds, whichever is less. A
/// window costs some ten million operations, too many for the block clock's thread. Not
/// thread-safe.
class RoundTripMeter {
  public:
    explicit RoundTripMeter(const StreamFormat& format);

    /// Takes the next block of both channels, `frames` samples each. True when it completed a
    /// window and so updated the report.
    bool feed(std::span<const float> sent, std::span<const float> returned);
    /// Discards the unfinished window and the lag. Call after skipped blocks.
    void restart();
    /// Starts over with the new format; keeps the totals.
    void change_format(const StreamFormat& format);

    RoundTripReport report() const;

  private:
    void measure();
    std::optional<std::size_t> find_lag() const;
    /// Energy-weighted mean correlation of the window's pieces, each at its best lag near `lag`.
    double similarity(std::size_t lag) const;
    struct BlockCounts {
        std::uint64_t exact = 0;
        std::uint64_t compared = 0;
        std::uint64_t silent = 0;
    };
    BlockCounts compare_blocks(std::size_t lag) const;

    StreamFormat format_;
    std::size_t max_lag_ = 0;      ///< in frames
    std::size_t window_ = 0;       ///< in frames, a multiple of the block size
    std::vector<float> sent_;      ///< max_lag_ older frames, then those of the window
    std::vector<float> returned_;  ///< frames of the window
    std::optional<std::size_t> known_lag_;
    bool heard_ = false;  ///< the signal has been found in an earlier window
    RoundTripReport totals_;
    std::vector<double> correlations_;  ///< one per window
};

}  // namespace tavistro::server
