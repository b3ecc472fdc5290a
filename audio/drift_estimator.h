// How fast the server's clock runs against the device's, learnt from the server's sync notices.
#pragma once

#include <atomic>
#include <cstdint>
#include <limits>

#include "platform/realtime.h"

namespace tavistro {

/// Estimate of server frames per device frame, `pll_ratio`.
///
/// The receive thread reports the server's frame position, the device thread counts the frames it
/// has consumed and compares both once per period. Each new notice moves the estimate towards the
/// ratio of the two advances since the notice before (common/drift_law.h).
class DriftEstimator {
  public:
    /// No notice seen, nothing consumed, ratio 1.0. While no device thread runs; a late on_sync()
    /// at the same time is harmless.
    void reset() noexcept;

    /// Takes the server's running frame position. Any thread; lock-free.
    void on_sync(std::uint64_t server_frame_position) noexcept;
    /// Compares the clocks when a notice came since the last call. Device thread, at the start of
    /// every period.
    TAVISTRO_REALTIME void update_drift() noexcept;
    /// Counts what the device has consumed. Device thread, at the end of every period.
    TAVISTRO_REALTIME void add_local_frames(std::uint64_t frames) noexcept {
        local_frames_.fetch_add(frames, std::memory_order_relaxed);
    }

    /// Any thread.
    double pll_ratio() const noexcept;
    /// Device frames per server frame, 1.0 for an estimate that is not above 0. Any thread.
    double capture_ratio() const noexcept;

  private:
    struct Sample {
        std::uint64_t server_frames;
        std::uint64_t local_frames;
    };

    void store_ratio(double ratio) noexcept;

    // A fixed-size word of its own, so that the ratio is lock-free wherever 64-bit integers are.
    std::atomic<std::uint64_t> pll_ratio_bits_{0x3FF0000000000000};
    std::atomic<std::uint64_t> sync_count_{0};
    std::atomic<std::uint64_t> server_frames_{0};
    std::atomic<std::uint64_t> local_frames_{0};
    // The device thread's own.
    bool has_previous_ = false;
    Sample previous_{};
    std::uint64_t last_sync_count_ = 0;

    static_assert(std::numeric_limits<double>::is_iec559);
    static_assert(std::atomic<std::uint64_t>::is_always_lock_free);
};

}  // namespace tavistro
