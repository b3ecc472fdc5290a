#include "tools/host/run_totals.h"

#include <algorithm>
#include <cstdint>

namespace tavistro::host {

namespace {

using Block = tavistro_stats_block;

constexpr std::uint32_t Block::*counters[] = {&Block::underruns, &Block::overruns,
                                              &Block::playback_dropped, &Block::capture_dropped};

Block joined(const Block& before, Block now) {
    for (const auto counter : counters)
        now.*counter += before.*counter;
    now.rendered_frames += before.rendered_frames;
    now.server_to_output_max_us =
        std::max(now.server_to_output_max_us, before.server_to_output_max_us);
    return now;
}

/// The rendered frames alone would miss a first start that was over within a report, a fault
/// counter alone one that counted no less.
bool started_anew(const Block& before, const Block& now) {
    const auto fell = [&](auto counter) { return now.*counter < before.*counter; };
    return fell(&Block::rendered_frames) || std::ranges::any_of(counters, fell);
}

}  // namespace

Block RunTotals::add(const Block& now) {
    if (started_anew(last_, now)) before_ = joined(before_, last_);
    last_ = now;
    return joined(before_, now);
}

}  // namespace tavistro::host
