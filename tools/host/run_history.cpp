#include "tools/host/run_history.h"

#include <algorithm>
#include <array>
#include <span>

namespace tavistro::host {

namespace {

using Block = tavistro_stats_block;

constexpr auto fault_counts = std::to_array(
    {&tavistro_stats_block::underruns, &tavistro_stats_block::overruns,
     &tavistro_stats_block::playback_dropped, &tavistro_stats_block::capture_dropped});

Block joined(const Block& before, Block now) {
    for (const auto count : fault_counts)
        now.*count += before.*count;
    now.rendered_frames += before.rendered_frames;
    now.server_to_output_max_us =
        std::max(now.server_to_output_max_us, before.server_to_output_max_us);
    return now;
}

/// The rendered frames alone would miss a first start that was over within a report, a fault
/// counter alone one that counted no less.
bool started_anew(const Block& before, const Block& now) {
    const auto is_less = [&](auto count) { return now.*count < before.*count; };
    return now.rendered_frames < before.rendered_frames ||
           std::ranges::any_of(fault_counts, is_less);
}

}  // namespace

std::vector<NewEvent> EventFollower::take_new(const tavistro_engine_state& state) {
    std::vector<NewEvent> result;
    for (const tavistro_engine_event& event : std::span(state.events).first(state.event_count)) {
        if (event.sequence <= last_sequence_) continue;
        result.push_back({event, event.sequence - last_sequence_ - 1});
        last_sequence_ = event.sequence;
    }
    return result;
}

void StatsAges::add(const Block& now, double time_s) {
    if (!last_ || now.rendered_frames != last_->rendered_frames) playback_time_s_ = time_s;
    if (!last_ || now.rtt_samples != last_->rtt_samples) round_trip_time_s_ = time_s;
    last_ = now;
}

Block RunTotals::add(const Block& now) {
    if (started_anew(last_, now)) before_ = joined(before_, last_);
    last_ = now;
    return joined(before_, now);
}

}  // namespace tavistro::host
