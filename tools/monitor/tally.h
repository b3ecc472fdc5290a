// Adds up what an engine publishes, from looks at its statistics block every few milliseconds.
//
// The engine publishes counts of seconds that begin and end when it likes, and two halves of the
// block know different moments. A tally sees each report as it comes, so its sums miss none.
#pragma once

#include <cstdint>

#include "tavistro/stats_block.h"
#include "tools/monitor/totals.h"

namespace tavistro::monitor {

/// How often to look: often enough to see each notice of the server's clock, or each other one.
inline constexpr std::int64_t look_every_us = 4000;

/// Not thread-safe; reads no clock.
class Tally {
  public:
    /// The block as it was at `now_us`, a monotonic time; nothing is added while the engine is not
    /// running. `overslept_us` is how much later than planned the thread that looks woke for it.
    void look(std::int64_t now_us, std::int64_t overslept_us, const tavistro_stats_block& block);

    const Totals& totals() const noexcept { return totals_; }

  private:
    Totals totals_;
};

}  // namespace tavistro::monitor
