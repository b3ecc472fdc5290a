#include "bench/diagnosis_lab/verdict.h"

#include <algorithm>
#include <cmath>

#include "bench/diagnosis_lab/world.h"

namespace tavistro::diagnosis_lab {

namespace {

constexpr std::int64_t early_ms = 120'000;
/// The engine reports an event at most one second later, in two separate halves; then the monitor
/// has seen a whole second of both.
constexpr std::int64_t report_lag_ms = 2500;
constexpr std::int64_t count_tolerance = 10;
constexpr double count_tolerance_share = 0.01;

Causes causes_of(std::span<const monitor::Sample> samples, bool* not_clear_yet = nullptr) {
    const monitor::Account account = monitor::judge(samples);
    if (not_clear_yet != nullptr) *not_clear_yet = !account.not_clear_yet.empty();
    Causes causes;
    for (const monitor::Finding& finding : account.causes)
        causes.add(finding.cause);
    return causes;
}

/// Blocks and sync notices are counted one after the other, so one of them may seem to be missing.
std::int64_t audible_events(const Counts& c) {
    const std::int64_t notices = c.notices_missed() > 1 ? c.notices_missed() : 0;
    return c.replaced + c.late + notices + c.refused + c.underruns + c.overruns + c.periods_missed +
           c.periods_doubled + (c.silence_ms > 0 ? 1 : 0);
}

std::vector<Told> compare_counts(const Recording& recording) {
    const monitor::Sample& first = recording.samples.front();
    const monitor::Sample& last = recording.samples.back();
    const auto between = [&](std::int64_t from_ms, std::int64_t until_ms) {
        return recording.counts_at(until_ms) - recording.counts_at(std::min(from_ms, until_ms));
    };
    const Counts least = between(first.time_ms + report_lag_ms, last.time_ms - report_lag_ms);
    const Counts most = between(first.time_ms - report_lag_ms, last.time_ms);
    const monitor::Totals& from = first.totals;
    const monitor::Totals& to = last.totals;
    std::vector<Told> told{
        {"runs", to.run - from.run, 0, 0},
        // Blocks that a silent server never sent may be reported only as its silence.
        {"blocks", to.blocks - from.blocks, least.blocks() - least.in_silence, most.blocks()},
        {"blocks replaced", to.replaced.count - from.replaced.count,
         least.replaced - least.in_silence, most.replaced},
        {"notices missed", to.notices_missed.count - from.notices_missed.count,
         least.timed_notices_missed() - least.in_silence, most.notices_missed()},
        {"blocks repeated", to.repeated.count - from.repeated.count, least.late + least.came_again,
         most.late + most.came_again},
        {"blocks refused", to.refused - from.refused, least.refused, most.refused},
        {"notices", to.notices - from.notices, least.timed_notices(), most.notices},
        {"periods", to.periods - from.periods, least.periods, most.periods},
        {"underruns", to.underruns - from.underruns, least.underruns, most.underruns},
        {"overruns", to.overruns - from.overruns, least.overruns, most.overruns},
        {"silence, tenths of a second", (to.silence.count - from.silence.count) / 100,
         least.silence_ms / 100, most.silence_ms / 100},
    };
    return told;
}

/// Whether the device's periods show its clock, which missed or doubled periods would distort.
bool keeps_its_clock(const Scenario& scenario) {
    return scenario.card.loopback_callback_skip_every == 0 &&
           scenario.card.loopback_callback_stall_every_ms == 0 &&
           scenario.card.loopback_callback_duplicate_every == 0 && scenario.card_rate == 0;
}

}  // namespace

bool Told::right() const {
    const auto tolerance =
        std::max(count_tolerance,
                 static_cast<std::int64_t>(static_cast<double>(most) * count_tolerance_share));
    return told >= least - tolerance && told <= most + tolerance;
}

bool Verdict::clock_right() const {
    return std::abs(clock_error_ppm) <= clock_uncertainty_ppm;
}

bool Verdict::counts_right() const {
    return std::ranges::all_of(told, &Told::right);
}

Verdict diagnose_world(const Job& job) {
    const Scenario scenario = scenario_of(*job.entry, job.seed, job.seconds);
    const Recording recording = simulate(scenario);
    const std::span<const monitor::Sample> samples(recording.samples);

    Verdict verdict;
    verdict.job = job;
    for (const monitor::Cause cause : job.entry->causes())
        verdict.put_in.add(cause);
    verdict.named = causes_of(samples, &verdict.not_clear_yet);

    const std::int64_t early_until_ms = samples.front().time_ms + early_ms;
    const auto early_end =
        std::ranges::upper_bound(samples, early_until_ms, {}, &monitor::Sample::time_ms);
    const auto early = samples.first(static_cast<std::size_t>(early_end - samples.begin()));
    verdict.named_early = early.size() == samples.size() ? verdict.named : causes_of(early);
    const Counts heard = recording.counts_at(early.back().time_ms) - recording.first_look;
    const double minutes = monitor::seconds_between(early.front(), early.back()) / 60;
    verdict.audible_early = static_cast<double>(audible_events(heard)) >= std::max(1.0, minutes);

    verdict.told = compare_counts(recording);
    const monitor::Totals& totals = samples.back().totals;
    verdict.clock_compared = totals.clock_uncertainty_ppm > 0 && keeps_its_clock(scenario);
    verdict.clock_error_ppm = totals.server_faster_ppm - scenario.server_faster_ppm();
    verdict.clock_uncertainty_ppm = totals.clock_uncertainty_ppm;
    verdict.disagreement = recording.disagreement();
    return verdict;
}

}  // namespace tavistro::diagnosis_lab
