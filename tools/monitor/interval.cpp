#include "tools/monitor/interval.h"

#include <algorithm>

#include "tavistro/engine.h"
#include "tools/host/read_speed.h"

namespace tavistro::monitor {

namespace {

constexpr double shortest_step_s = 0.9;
constexpr double longest_step_s = 10;

bool is_running(const Sample& sample) {
    return sample.presence == Presence::alive && sample.stats->state == TAVISTRO_STATE_RUNNING;
}

/// Counters start anew with each start of the network client or the player.
bool one_run(const tavistro_stats_block& before, const tavistro_stats_block& after) {
    return after.rendered_frames >= before.rendered_frames &&
           after.sync_delay_samples >= before.sync_delay_samples &&
           after.underruns >= before.underruns && after.overruns >= before.overruns &&
           after.stream_sample_rate == before.stream_sample_rate &&
           after.stream_block_frames == before.stream_block_frames;
}

std::uint32_t risen(std::uint32_t before, std::uint32_t after) {
    return after > before ? after : 0;
}

}  // namespace

std::uint32_t Step::longest_pause_us() const {
    return std::max({host_late_us,
                     risen(before.callback_duration_max_us, after.callback_duration_max_us),
                     risen(before.block_callback_max_us, after.block_callback_max_us)});
}

std::int64_t Step::slips() const {
    return std::int64_t{after.underruns} - before.underruns + after.overruns - before.overruns;
}

std::vector<Step> steps_of(std::span<const Sample> samples) {
    std::vector<Step> steps;
    const Sample* previous = nullptr;
    std::uint32_t host_late_us = 0;
    for (const Sample& sample : samples) {
        if (!is_running(sample)) {
            previous = nullptr;
            continue;
        }
        host_late_us = std::max(host_late_us, sample.host_late_us.value_or(0));
        const bool comparable = previous != nullptr && one_run(*previous->stats, *sample.stats);
        const double seconds = comparable ? seconds_between(*previous, sample) : 0;
        if (comparable && seconds >= 0 && seconds < shortest_step_s) continue;
        if (comparable && seconds > 0 && seconds <= longest_step_s)
            steps.push_back({seconds_between(samples.front(), *previous),
                             seconds_between(samples.front(), sample), host_late_us,
                             *previous->stats, *sample.stats});
        previous = &sample;
        host_late_us = 0;
    }
    return steps;
}

Interval::Interval(std::span<const Step> steps) {
    // After a pause of the server come the blocks that were due: no step to judge by.
    bool was_quiet = false;
    for (const Step& step : steps) {
        if (step.server_is_quiet()) quiet_seconds += step.seconds();
        if (!step.server_is_quiet() && !was_quiet) add(step);
        was_quiet = step.server_is_quiet();
        last = step.after;
    }
    add_pauses(steps);
    if (seconds == 0) return;
    for (double* rate : {&received_per_s, &repeated_per_s, &queued_per_s, &periods_per_s,
                         &mean_error_frames, &read_speed_ppm, &notices_per_s})
        *rate /= seconds;
}

void Interval::add(const Step& step) {
    const tavistro_stats_block& a = step.before;
    const tavistro_stats_block& b = step.after;
    const double s = step.seconds();
    seconds += s;
    received_per_s += s * b.client_recv_blocks_per_sec;
    repeated_per_s += s * b.client_duplicate_blocks_per_sec;
    queued_per_s += s * b.player_recv_blocks_per_sec;
    periods_per_s += s * b.callbacks_per_sec;
    if (b.callbacks_per_sec == 0) still_seconds += s;
    underruns += b.underruns - a.underruns;
    overruns += b.overruns - a.overruns;
    dropped += static_cast<std::int64_t>(b.playback_dropped) - a.playback_dropped;
    rendered_frames += static_cast<std::int64_t>(b.rendered_frames - a.rendered_frames);
    mean_error_frames += s * ((static_cast<double>(b.min_frames) + b.max_frames) / 2 -
                              static_cast<double>(b.target_frames));
    read_speed_ppm += s * host::read_speed_ppm(b);
    for (std::size_t i = 0; i < sync_delays.size(); ++i)
        sync_delays[i] += b.sync_delay_histogram[i] - a.sync_delay_histogram[i];
    // Notices are counted once the clocks are known; before, none is missed.
    notices_per_s += a.sync_delay_samples != 0
                         ? static_cast<double>(b.sync_delay_samples - a.sync_delay_samples)
                         : s * b.stream_sample_rate / b.stream_block_frames;
}

void Interval::add_pauses(std::span<const Step> steps) {
    if (!has_format()) return;
    bool paused = false;
    for (const Step& step : steps) {
        const bool pauses = step.longest_pause_us() > long_pause_us();
        if (pauses || paused) slips_beside_pauses += step.slips();
        paused = pauses;
        host_late_us = std::max(host_late_us, step.host_late_us);
        longest_pause_us = std::max(longest_pause_us, step.longest_pause_us());
    }
}

double Interval::long_pause_us() const {
    constexpr double shortest_us = 2500;
    return std::max(shortest_us, 2 * block_us());
}

double Interval::replaced_per_s() const {
    return queued_per_s + static_cast<double>(dropped) / seconds - received_per_s;
}

}  // namespace tavistro::monitor
