// A short ring that passes captured periods from the device thread to the player.
//
// One producer (the device thread) and one consumer at a time (the player's telemetry step);
// neither waits. If the ring is full, the new period is dropped and counted.
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
    /// One slot stays empty to distinguish a full ring from an empty one: at most 7 periods.
    static constexpr std::size_t slot_count = 8;

    /// Empties the ring, sizes each slot for `samples_per_slot` samples and resets the drop count.
    /// Throws std::bad_alloc or std::length_error. Not while producer or consumer are active.
    void configure(std::size_t samples_per_slot);
    void release() noexcept;

    /// Returns the slot to fill; null if the ring has no slots, or is full (counts a drop). Device
    /// thread.
    TAVISTRO_REALTIME CaptureSlot* begin_write() noexcept;
    /// Passes the slot of begin_write() to the consumer. Device thread.
    TAVISTRO_REALTIME void commit_write() noexcept;

    /// Copies the oldest period to `slot`, whose memory is reused, and removes it from the ring.
    /// Returns false if the ring is empty.
    bool take(CaptureSlot& slot);

    /// Periods dropped since configure(). Any thread.
    std::uint64_t captureDropped() const noexcept {
        return dropped_.load(std::memory_order_relaxed);
    }

  private:
    static std::size_t next(std::size_t position) noexcept { return (position + 1) % slot_count; }

    bool has_slots_ = false;
    std::array<CaptureSlot, slot_count> slots_;
    // Each index is stored with release by its side and loaded with acquire by the other. Relaxed:
    // a side's loads of its own index; the consumer changes only under the player's mutex.
    std::atomic<std::size_t> write_{0};  ///< stored by the producer after it has filled the slot
    std::atomic<std::size_t> read_{0};   ///< stored by the consumer after it has copied the slot
    std::atomic<std::uint64_t> dropped_{0};  ///< relaxed: a number for display
};

}  // namespace tavistro
