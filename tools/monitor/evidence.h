// From counts to causes: which sides are named for what was counted over some time.
#pragma once

#include <cmath>
#include <cstdint>
#include <functional>
#include <set>
#include <span>
#include <string>

#include "tools/monitor/account.h"
#include "tools/monitor/sample.h"

namespace tavistro::monitor {

/// Of microseconds milliseconds, of those seconds.
inline double thousandth(std::int64_t n) {
    return static_cast<double>(n) / 1e3;
}
/// 0 of nothing.
double percent(std::int64_t part, std::int64_t whole);

/// What happened to one run of the audio path between the first and the last of some samples.
class Stretch {
  public:
    /// `samples` are of one run, one or more; `origin` is the first sample of the whole history.
    Stretch(std::span<const Sample> samples, const Sample& origin);

    /// Totals of the last sample minus those of the first. The clocks are as last measured.
    const Totals& counted() const { return counted_; }
    const tavistro_stats_block& last() const { return *samples_.back().stats; }
    double seconds() const { return thousandth(counted_.watched_ms); }
    std::int64_t drop_outs() const { return counted_.underruns + counted_.overruns; }
    double block_us() const { return 1e6 * last().stream_block_frames / last().stream_sample_rate; }
    /// In the time that the engine's reports cover.
    double periods_due() const {
        return static_cast<double>(counted_.reported_ms) * 1e3 / block_us();
    }
    double buffer_ms() const { return 1e3 * last().target_frames / last().stream_sample_rate; }

    Span span() const;
    /// From the first to the last sample with which `count(totals)` had grown.
    template <typename Count>
    Span span_of(const Count& count) const {
        std::size_t first = 0;
        std::size_t last = 0;
        for (std::size_t i = 1; i < samples_.size(); ++i) {
            if (std::invoke(count, samples_[i].totals) ==
                std::invoke(count, samples_[i - 1].totals))
                continue;
            last = i;
            if (first == 0) first = i;
        }
        return {at(first), at(last)};
    }
    struct Rate {
        double hz = 0;         ///< 0: none
        bool is_sure = false;  ///< else periods missed for pauses of this computer may look like it
    };
    /// The rate that the device runs at all the time when it is one that devices have and not the
    /// stream's.
    Rate another_rate() const;

  private:
    double at(std::size_t index) const { return seconds_between(origin_, samples_[index]); }

    std::span<const Sample> samples_;
    const Sample& origin_;
    Totals counted_;
};

/// What the counts of a stretch prove.
struct Proof {
    std::set<Cause> causes;
    // What they do not explain; 0 when it is less than half of all.
    std::int64_t drop_outs = 0;  ///< underruns and overruns
    std::int64_t replaced = 0;   ///< blocks

    bool explains_all() const { return drop_outs == 0 && replaced == 0; }
};
Proof proof_of(const Stretch& stretch);

/// What a proven cause did over a stretch, in words.
std::string words_for(Cause cause, const Stretch& stretch);
/// What would make clear where the drop-outs come from.
std::string what_would_make_clear(const Stretch& stretch, const Proof& proof);

}  // namespace tavistro::monitor
