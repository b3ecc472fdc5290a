// Estimates the rate of the server clock relative to the device clock from sync notices.
#pragma once

#include <atomic>
#include <cstdint>
#include <limits>

#include "platform/realtime.h"

namespace tavistro {

/// Estimates server frames per device frame, `pll_ratio`.
///
/// The receive thread stores the server's frame position. The device thread counts the frames that
/// it has consumed and compares both once per period. Each new notice moves the estimate towards
/// the ratio of the two advances since the previous notice (common/drift_law.h).
class DriftEstimator {
  public:
    /// Discards notices and frame count and sets the ratio to 1.0. Only while no device thread
    /// runs; a concurrent on_sync() is harmless.
    void reset() noexcept;

    /// Stores the server's frame position. Any thread; lock-free.
    void on_sync(std::uint64_t server_frame_position) noexcept;
    /// Updates the estimate if a notice has arrived since the last call. Device thread, at the
    /// start of every period.
    TAVISTRO_REALTIME void update_drift() noexcept;
    /// Adds to the frames that the device has consumed. Device thread, at the end of every period.
    TAVISTRO_REALTIME void add_local_frames(std::uint64_t frames) noexcept {
        local_frames_.fetch_add(frames, std::memory_order_relaxed);
    }

    /// Any thread.
    double pll_ratio() const noexcept;
    /// Device frames per server frame; 1.0 if the estimate is not above 0. Any thread.
    double capture_ratio() const noexcept;

  private:
    struct Sample {
        std::uint64_t server_frames;
        std::uint64_t local_frames;
    };

    void store_ratio(double ratio) noexcept;

    // The bits of a double: lock-free wherever 64-bit integers are. Relaxed: a single number that
    // readers take by itself.
    std::atomic<std::uint64_t> pll_ratio_bits_{0x3FF0000000000000};
    // The position is stored before the count is raised with release, and loaded after the count
    // with acquire. Its own accesses are relaxed: a position newer than the count serves as well.
    std::atomic<std::uint64_t> sync_count_{0};
    std::atomic<std::uint64_t> server_frames_{0};
    // Relaxed: the device thread alone adds and reads; reset() runs without one.
    std::atomic<std::uint64_t> local_frames_{0};
    // Used only by the device thread.
    bool has_previous_ = false;
    Sample previous_{};
    std::uint64_t last_sync_count_ = 0;

    static_assert(std::numeric_limits<double>::is_iec559);
    static_assert(std::atomic<std::uint64_t>::is_always_lock_free);
};

}  // namespace tavistro
