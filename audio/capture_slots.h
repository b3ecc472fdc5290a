// The short ring that carries captured periods off the device thread.
//
// One producer (the device thread), one consumer at a time (the player's telemetry step); neither
// waits. A full ring drops the new period and counts it.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/realtime.h"

namespace tavistro {

/// One captured period.
struct CaptureSlot {
    std::vector<float> samples;     ///< planar
    std::uint32_t sample_rate = 0;  ///< Hz
    std::uint16_t frames = 0;
    std::uint16_t channels = 0;
};

class CaptureSlots {
  public:
    /// One slot stays empty to tell a full ring from an empty one: 7 periods are held at most.
    static constexpr std::size_t slot_count = 8;

    /// Empty, with room for `samples_per_slot` values each, nothing dropped. Throws
    /// std::bad_alloc or std::length_error. Neither side may be inside.
    void configure(std::size_t samples_per_slot);
    void release() noexcept;

    /// The slot to fill, null when the ring has no slots or is full (then counted). Device thread.
    TAVISTRO_REALTIME CaptureSlot* begin_write() noexcept;
    /// Hands the slot of begin_write() to the consumer. Device thread.
    TAVISTRO_REALTIME void commit_write() noexcept;

    /// Copies the oldest period to `slot`, whose samples keep their memory from call to call, and
    /// removes it. False when there is none.
    bool take(CaptureSlot& slot);

    /// Periods dropped since configure(). Any thread.
    std::uint64_t captureDropped() const noexcept {
        return dropped_.load(std::memory_order_relaxed);
    }

  private:
    static std::size_t next(std::size_t position) noexcept { return (position + 1) % slot_count; }

    bool has_slots_ = false;
    std::array<CaptureSlot, slot_count> slots_;
    std::atomic<std::size_t> write_{0};  ///< stored by the producer after filling the slot
    std::atomic<std::size_t> read_{0};   ///< stored by the consumer after copying the slot
    std::atomic<std::uint64_t> dropped_{0};
};

}  // namespace tavistro
