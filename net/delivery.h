// Orders completed blocks: detects new, duplicate, late and missing ones.
#pragma once

#include <cstdint>
#include <optional>

namespace tavistro {

/// Tracks the sequence of the blocks delivered so far. Not thread-safe.
class DeliveryTracker {
  public:
    /// Longest gap, in blocks, that is filled with silence. A longer one is a discontinuity (server
    /// restart, long outage): filling it would only keep the receive thread busy.
    static constexpr std::uint32_t max_filled_gap = 1024;

    struct Verdict {
        bool is_new = false;              ///< false: duplicate or late, do not deliver
        std::uint32_t first_missing = 0;  ///< first sequence to fill with silence
        std::uint32_t missing = 0;        ///< number of blocks to fill, 0..max_filled_gap
    };

    /// Records a completed block.
    Verdict consult(std::uint32_t sequence) noexcept;
    /// Accepts any sequence as the next block.
    void reset() noexcept { last_.reset(); }

  private:
    std::optional<std::uint32_t> last_;
};

}  // namespace tavistro
