// Puts completed blocks in order: what is new, what came twice or too late, what is missing.
#pragma once

#include <cstdint>
#include <optional>

namespace tavistro {

/// Sequence numbers of the blocks delivered so far. Not thread-safe.
class DeliveryTracker {
  public:
    /// Longest run of missing blocks that is filled with silence. More is a jump of the stream (a
    /// restarted server, a long outage): filling it would keep the receive thread busy for nothing
    /// that anybody hears.
    static constexpr std::uint32_t max_filled_gap = 1024;

    struct Verdict {
        bool is_new = false;              ///< false: a duplicate or late, not to be delivered
        std::uint32_t first_missing = 0;  ///< first sequence to fill with silence
        std::uint32_t missing = 0;        ///< how many to fill, 0..max_filled_gap
    };

    /// Takes note of a completed block.
    Verdict consult(std::uint32_t sequence) noexcept;
    /// The next block is the first.
    void reset() noexcept { last_.reset(); }

  private:
    std::optional<std::uint32_t> last_;
};

}  // namespace tavistro
