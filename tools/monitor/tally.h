// Adds up what an engine publishes, from looks at its statistics block every few milliseconds.
//
// The engine publishes counts of seconds of its own: the network client's begin and end with its
// blocks, the player's with its reports. A tally sees each of them as it is published, so its sums
// miss none. Where two sums are known up to different moments, it counts only what must have
// happened whatever the moments were.
#pragma once

#include <array>
#include <bitset>
#include <cstdint>
#include <limits>
#include <optional>

#include "tavistro/stats_block.h"
#include "tools/monitor/clock_comparison.h"
#include "tools/monitor/totals.h"

namespace tavistro::monitor {

/// Not thread-safe; reads no clock.
class Tally {
  public:
    /// The block as it was at `now_us`, a monotonic time. Nothing is added while the engine is not
    /// running. `overslept_us` is how much later than planned the thread that looks woke for it.
    void look(std::int64_t now_us, std::int64_t overslept_us, const tavistro_stats_block& block);

    /// When to look next: every few milliseconds, and more often while one of the engine's reports
    /// is due, so that it is known between which two blocks it came. Later than the last look; not
    /// much is lost by being late.
    std::int64_t next_look_us() const noexcept;

    const Totals& totals() const noexcept { return totals_; }

  private:
    /// A count of which only bounds are known.
    struct Range {
        std::int64_t least = 0;
        std::int64_t most = 0;
        Range operator-(const Range& other) const {
            return {least - other.most, most - other.least};
        }
    };
    /// How much a sum that never shrinks has grown at least, when each look at it gives a range.
    class Growth {
      public:
        /// Returns what is newly certain.
        std::int64_t see(const Range& sum);
        /// The most that it can have grown until this look.
        std::int64_t at_most(const Range& sum) const { return sum.most - *first_least_; }

      private:
        std::int64_t highest_least_ = std::numeric_limits<std::int64_t>::min();
        std::int64_t lowest_most_ = std::numeric_limits<std::int64_t>::max();
        std::int64_t counted_ = 0;
        std::optional<std::int64_t> first_least_;
    };
    /// A trouble and the seconds beside it.
    struct Watch {
        Trouble Totals::*trouble;
        std::bitset<3> seen{};  ///< in this second, in the one before and in the one before that
    };

    /// Something happened between two looks.
    struct Moment {
        std::int64_t least_us = 0;
        std::int64_t most_us = 0;
        Range notices{};  ///< by then
    };
    /// When a second of the network client ended.
    struct SecondEnd {
        double end_us = 0;
        double uncertain_us = 0;  ///< to either side; 0: it was seen
        Moment seen{};
    };
    bool continues(const tavistro_stats_block& block) const;
    void begin_run(std::int64_t now_us, const tavistro_stats_block& block);
    void take_pause(std::int64_t us);
    void take_notices(std::int64_t gap_us);
    void take_catching_up(std::int64_t came, std::int64_t gap_us);
    void take_silence(bool sign, std::int64_t gap_us);
    void take_client_second();
    void reckon_client_second();
    void end_client_second(const SecondEnd& end);
    void take_report();
    void close_second();
    void count_blocks();
    Range blocks_since_second(std::int64_t most_notices_missed) const;
    void count_periods();
    void compare_clocks();
    void attribute_drop_outs(std::int64_t drop_outs);
    void add(Trouble Totals::*trouble, std::int64_t n);
    std::int64_t half_buffer_us() const;

    Totals totals_;
    bool running_ = false;
    std::int64_t began_us_ = 0;
    std::int64_t now_us_ = 0;
    std::int64_t before_us_ = 0;  ///< the look before
    tavistro_stats_block now_{};
    tavistro_stats_block before_{};
    double block_us_ = 0;
    double block_error_ = 0;  ///< of block_us_, as a share of it

    // Notices, and what is not heard.
    std::int64_t notices_before_ = 0;           ///< at the look before
    std::int64_t quiet_us_ = 0;                 ///< without a notice
    std::int64_t longest_quiet_us_ = 0;         ///< since the last report
    std::int64_t longest_quiet_before_us_ = 0;  ///< between the two reports before
    bool gap_in_notices_ = false;               ///< since the last report
    bool gap_in_notices_before_ = false;        ///< between the two reports before
    std::int64_t catching_up_us_ = 0;           ///< how late the notices of the look before were
    std::int64_t made_up_us_ = 0;               ///< by more of them than the time since then has
    std::int64_t silent_us_ = 0;                ///< without a notice, a block or a pong
    std::int64_t counted_silence_ms_ = 0;
    std::int64_t unsettled_until_us_ = 0;

    // The network client's seconds.
    std::optional<Moment> pending_second_;  ///< seen at the look before, maybe not all of it
    tavistro_stats_block before_second_{};
    SecondEnd second_;
    std::int64_t received_ = 0;
    std::int64_t repeated_ = 0;
    int deliveries_since_due_ = 0;

    // The player's reports.
    bool report_pending_ = false;
    Moment report_;
    Moment earlier_report_;
    tavistro_stats_block reported_{};
    int reports_ = 0;
    Moment first_report_;          ///< from which the totals count
    std::int64_t stretch_us_ = 0;  ///< since when blocks are measured
    std::int64_t stretch_blocks_ = 0;
    std::array<Range, 2> missed_before_{};  ///< at the last report and the one before

    Growth replaced_;
    Growth missed_;
    std::int64_t missed_before_replaced_ = 0;  ///< notices, when replaced blocks were first counted
    ClockComparison clocks_;
    std::int64_t drop_outs_before_ = 0;  ///< of the second before
    std::int64_t drop_outs_two_before_ = 0;
    bool settled_ = true;
    std::array<Watch, 9> watches_{
        Watch{&Totals::replaced},      Watch{&Totals::repeated},     Watch{&Totals::notices_missed},
        Watch{&Totals::notice_gaps},   Watch{&Totals::silence},      Watch{&Totals::late},
        Watch{&Totals::periods_short}, Watch{&Totals::periods_long}, Watch{&Totals::pauses}};
};

}  // namespace tavistro::monitor
