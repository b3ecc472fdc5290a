#include "tools/host/run_totals.h"

#include <algorithm>
#include <cstdint>

namespace tavistro::host {

namespace {

using Block = tavistro_stats_block;

Block joined(const Block& before, Block now) {
    now.underruns += before.underruns;
    now.overruns += before.overruns;
    now.playback_dropped += before.playback_dropped;
    now.capture_dropped += before.capture_dropped;
    now.rendered_frames += before.rendered_frames;
    now.server_to_output_max_us =
        std::max(now.server_to_output_max_us, before.server_to_output_max_us);
    return now;
}

/// The rendered frames alone would miss a first start that was over within a report, a fault
/// counter alone one that counted no less.
bool started_anew(const Block& before, const Block& now) {
    return now.rendered_frames < before.rendered_frames || now.underruns < before.underruns ||
           now.overruns < before.overruns || now.playback_dropped < before.playback_dropped ||
           now.capture_dropped < before.capture_dropped;
}

}  // namespace

Block RunTotals::add(const Block& now) {
    if (started_anew(last_, now)) before_ = joined(before_, last_);
    last_ = now;
    return joined(before_, now);
}

}  // namespace tavistro::host
