#include "tools/monitor/tally.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <utility>

#include "tavistro/engine.h"

namespace tavistro::monitor {

namespace {

constexpr std::int64_t look_every_us = 4000;
constexpr std::int64_t look_closely_every_us = 500;
/// The engine reports a second after it did so last, or with the block after that.
constexpr std::int64_t report_every_us = 1'000'000;
constexpr std::int64_t look_closely_before_us = 2'000;
constexpr std::int64_t look_closely_after_us = 6'000;
/// What happened before the first report is none of this watch, and the second one may still be of
/// the engine's start.
constexpr int reports_left_out = 2;
constexpr double never_us = 1e15;
constexpr std::int64_t any_number = 1'000'000'000;
/// Reports are a second apart: with looks further apart than this one could go unseen.
constexpr std::int64_t longest_gap_us = 900'000;
/// A second change so soon after the first is the rest of one report, of which half was seen.
constexpr std::int64_t same_report_us = 500'000;
/// Shorter spans without the server are lateness or loss.
constexpr std::int64_t shortest_silence_us = 1'000'000;
/// A buffer that ran empty fills, and is full for a while, after the server is back.
constexpr std::int64_t settling_us = 4'000'000;
/// No clock of a computer or a sound card is further off.
constexpr double most_clock_error = 0.005;
/// A thread that sleeps is never woken to the microsecond.
constexpr std::int64_t shortest_pause_us = 2'000;
/// Blocks are measured by the monitor's clock once that is sure to some 100 ppm.
constexpr std::int64_t measured_after_us = 30'000'000;
constexpr double measured_block_error = 2e-4;

bool client_second_differs(const tavistro_stats_block& a, const tavistro_stats_block& b) {
    return a.client_recv_blocks_per_sec != b.client_recv_blocks_per_sec ||
           a.client_duplicate_blocks_per_sec != b.client_duplicate_blocks_per_sec;
}

/// The fields of the player, which it writes together.
bool report_differs(const tavistro_stats_block& a, const tavistro_stats_block& b) {
    constexpr std::size_t from = offsetof(tavistro_stats_block, player_recv_blocks_per_sec);
    constexpr std::size_t until = offsetof(tavistro_stats_block, block_callback_last_us);
    const auto* const bytes_a = reinterpret_cast<const unsigned char*>(&a);
    const auto* const bytes_b = reinterpret_cast<const unsigned char*>(&b);
    return std::memcmp(bytes_a + from, bytes_b + from, until - from) != 0 ||
           a.rendered_frames != b.rendered_frames;
}

}  // namespace

std::int64_t Tally::Growth::see(const Range& sum) {
    if (!first_least_) first_least_ = sum.least;
    highest_least_ = std::max(highest_least_, sum.least);
    lowest_most_ = std::min(lowest_most_, sum.most);
    const std::int64_t certain = std::max<std::int64_t>(highest_least_ - lowest_most_, 0);
    const std::int64_t more = certain - counted_;
    counted_ = certain;
    return more;
}

void Tally::look(std::int64_t now_us, std::int64_t overslept_us,
                 const tavistro_stats_block& block) {
    const bool runs = block.state == TAVISTRO_STATE_RUNNING && block.stream_sample_rate != 0 &&
                      block.stream_block_frames != 0;
    if (!runs || !running_ || now_us - now_us_ > longest_gap_us || !continues(block)) {
        running_ = runs;
        now_us_ = now_us;
        if (runs) begin_run(now_us, block);
        return;
    }
    before_us_ = now_us_;
    before_ = now_;
    notices_before_ = totals_.notices;
    now_us_ = now_us;
    now_ = block;
    totals_.watched_ms = (now_us - began_us_) / 1000;

    take_pause(overslept_us);
    for (const auto maximum : {&tavistro_stats_block::callback_duration_max_us,
                               &tavistro_stats_block::block_callback_max_us}) {
        if (now_.*maximum > before_.*maximum) take_pause(now_.*maximum);
    }
    take_notices(now_us_ - before_us_);
    take_client_second();
    take_report();
}

std::int64_t Tally::next_look_us() const noexcept {
    std::int64_t next_us = now_us_ + look_every_us;
    for (const std::int64_t last_us :
         {report_.most_us, static_cast<std::int64_t>(second_.end_us)}) {
        const std::int64_t due_us = last_us + report_every_us;
        const std::int64_t closely_from_us = due_us - look_closely_before_us;
        if (now_us_ > due_us + look_closely_after_us + static_cast<std::int64_t>(block_us_))
            continue;
        next_us = std::min(next_us, std::max(closely_from_us, now_us_ + look_closely_every_us));
    }
    return next_us;
}

bool Tally::continues(const tavistro_stats_block& block) const {
    return block.stream_sample_rate == now_.stream_sample_rate &&
           block.stream_block_frames == now_.stream_block_frames &&
           block.rendered_frames >= now_.rendered_frames &&
           block.sync_delay_samples >= now_.sync_delay_samples &&
           block.underruns >= now_.underruns && block.overruns >= now_.overruns &&
           block.playback_dropped >= now_.playback_dropped;
}

void Tally::begin_run(std::int64_t now_us, const tavistro_stats_block& block) {
    const std::int64_t run = totals_.run + 1;
    *this = Tally();
    totals_.run = run;
    running_ = true;
    began_us_ = now_us_ = before_us_ = now_us;
    now_ = before_ = block;
    block_us_ = 1e6 * block.stream_block_frames / block.stream_sample_rate;
    block_error_ = most_clock_error;
    // Before the first second of a client that has just started nothing can be reckoned.
    const bool has_ended = block.client_recv_blocks_per_sec != 0;
    second_ = {static_cast<double>(now_us), has_ended ? report_every_us : never_us, {}};
}

std::int64_t Tally::half_buffer_us() const {
    return static_cast<std::int64_t>(5e5 * now_.target_frames / now_.stream_sample_rate);
}

void Tally::take_pause(std::int64_t us) {
    if (us < shortest_pause_us || static_cast<double>(us) < block_us_) return;
    add(&Totals::pauses, 1);
    if (us > half_buffer_us()) ++totals_.long_pauses;
    totals_.paused_periods += static_cast<std::int64_t>(static_cast<double>(us) / block_us_);
    totals_.longest_pause_us = std::max(totals_.longest_pause_us, us);
}

void Tally::take_notices(std::int64_t gap_us) {
    const std::int64_t came = now_.sync_delay_samples - before_.sync_delay_samples;
    totals_.notices += came;
    take_catching_up(came, gap_us);
    // A notice may have come right after the look before, or right before this one.
    longest_quiet_us_ = std::max(longest_quiet_us_, quiet_us_ + gap_us);
    // More than a single notice.
    const std::int64_t looked_late_us = std::max<std::int64_t>(gap_us - look_every_us, 0);
    if (static_cast<double>(quiet_us_ + looked_late_us) > 2.5 * block_us_) gap_in_notices_ = true;
    quiet_us_ = came == 0 ? quiet_us_ + gap_us : 0;
    take_silence(came != 0 || now_.rtt_samples != before_.rtt_samples ||
                     now_.block_callback_last_us != before_.block_callback_last_us,
                 gap_us);
}

/// What was only late comes at once when it comes: within two looks. The rest was missed.
void Tally::take_catching_up(std::int64_t came, std::int64_t gap_us) {
    const auto more_than_due_us = std::llround(block_us_ * static_cast<double>(came)) - gap_us;
    if (catching_up_us_ != 0) {
        made_up_us_ += more_than_due_us;
        if (2 * made_up_us_ > catching_up_us_) {
            add(&Totals::late, 1);
            totals_.longest_late_us = std::max(totals_.longest_late_us, catching_up_us_);
        } else if (catching_up_us_ > 3 * half_buffer_us()) {
            add(&Totals::notice_gaps, 1);
        }
        catching_up_us_ = 0;
    }
    const std::int64_t late_us = quiet_us_ - static_cast<std::int64_t>(block_us_);
    if (came != 0 && half_buffer_us() > 0 && late_us > half_buffer_us() &&
        quiet_us_ < shortest_silence_us) {
        catching_up_us_ = late_us;
        made_up_us_ = more_than_due_us;
    }
}

void Tally::take_silence(bool sign, std::int64_t gap_us) {
    // Before the first pong notices are not counted, and nothing is published.
    if (sign || now_.clock_synced == 0) {
        silent_us_ = counted_silence_ms_ = 0;
        return;
    }
    silent_us_ += gap_us;
    if (silent_us_ < shortest_silence_us) return;
    const std::int64_t silence_ms = silent_us_ / 1000;
    add(&Totals::silence, silence_ms - counted_silence_ms_);
    counted_silence_ms_ = silence_ms;
    unsettled_until_us_ = now_us_ + settling_us;
}

/// A second of the client ends with the first block that is complete 1000 ms after the last one
/// did. Two that had the same counts cannot be told apart by looking, so their ends are reckoned.
void Tally::take_client_second() {
    if (const auto seen = std::exchange(pending_second_, {})) {
        // What was reckoned to end just before this had not ended.
        if (second_.uncertain_us > 0 && second_.uncertain_us < same_report_us &&
            static_cast<double>(seen->most_us - same_report_us) < second_.end_us) {
            received_ -= before_second_.client_recv_blocks_per_sec;
            repeated_ -= before_second_.client_duplicate_blocks_per_sec;
        }
        // One that was reckoned too many, or too few, when nothing was sure yet, is no loss.
        if (second_.uncertain_us > same_report_us) {
            replaced_ = {};
            missed_before_replaced_ = totals_.notices_missed.count;
        }
        end_client_second({static_cast<double>(seen->most_us), 0, *seen});
    } else if (client_second_differs(now_, before_)) {
        pending_second_ = Moment{before_us_, now_us_, {notices_before_, totals_.notices}};
        // The block that ended the second came right behind its notice.
        const bool looked_closely = now_us_ - before_us_ < 2 * look_closely_every_us;
        Range& notices = pending_second_->notices;
        if (looked_closely && notices.most > notices.least) ++notices.least;
        before_second_ = before_;
    } else {
        reckon_client_second();
    }
}

void Tally::reckon_client_second() {
    if (second_.uncertain_us >= never_us) return;
    constexpr double tick_us = 1000;
    // A second has whole blocks, lost ones among them; a tick of a millisecond may hide a little.
    constexpr double hidden_blocks = 0.02;
    const double blocks = std::max<double>(now_.client_recv_blocks_per_sec,
                                           std::ceil(report_every_us / block_us_ - hidden_blocks));
    const double end_us = second_.end_us + blocks * block_us_;
    if (static_cast<double>(before_us_) < end_us + tick_us) return;
    // A delivery shows with the notice after it.
    if (now_.block_callback_last_us == before_.block_callback_last_us) return;
    if (++deliveries_since_due_ < 2) return;
    // The last block of a second may be a lost one, and the next one ends it then.
    const bool some_lost = blocks > now_.client_recv_blocks_per_sec;
    const double more_us = (some_lost ? block_us_ : tick_us) + blocks * block_us_ * block_error_;
    end_client_second({end_us, second_.uncertain_us + more_us, {}});
}

void Tally::end_client_second(const SecondEnd& end) {
    received_ += now_.client_recv_blocks_per_sec;
    repeated_ += now_.client_duplicate_blocks_per_sec;
    second_ = end;
    deliveries_since_due_ = 0;
}

void Tally::take_report() {
    if (report_pending_) {
        report_pending_ = false;
        close_second();
    } else if (report_differs(now_, before_)) {
        report_pending_ = true;
        if (now_us_ - report_.most_us < same_report_us) return;
        earlier_report_ = report_;
        report_ = {before_us_, now_us_, {notices_before_, totals_.notices}};
    }
}

void Tally::close_second() {
    const tavistro_stats_block earlier = reported_;
    reported_ = now_;
    if (++reports_ <= reports_left_out) {
        first_report_ = report_;
        stretch_us_ = report_.most_us;
        return;
    }
    totals_.reported_ms = (report_.most_us - first_report_.most_us) / 1000;
    const std::int64_t underruns = now_.underruns - earlier.underruns;
    const std::int64_t overruns = now_.overruns - earlier.overruns;
    const std::int64_t dropped = now_.playback_dropped - earlier.playback_dropped;
    totals_.underruns += underruns;
    totals_.overruns += overruns;
    totals_.refused += dropped - overruns;
    totals_.capture_dropped += now_.capture_dropped - earlier.capture_dropped;
    totals_.blocks += now_.player_recv_blocks_per_sec + dropped;
    totals_.periods += now_.callbacks_per_sec;

    if (now_.sync_delay_samples != 0) count_blocks();
    count_periods();
    compare_clocks();
    attribute_drop_outs(underruns + overruns);
}

/// A notice comes before its block: by the time of a report there may be one more.
void Tally::count_blocks() {
    const Range missed{totals_.blocks - report_.notices.most,
                       totals_.blocks - report_.notices.least + 1};
    if (const std::int64_t more = missed_.see(missed)) add(&Totals::notices_missed, more);
    // The newest second of the client began within the last two of the player.
    const bool some_missed = gap_in_notices_ || gap_in_notices_before_;
    const bool are_known = reports_ > reports_left_out + 2;
    const std::int64_t most_missed = !some_missed ? 0
                                     : are_known  ? missed.most - missed_before_[1].least
                                                  : any_number;
    missed_before_ = {missed, missed_before_[0]};

    if (const std::int64_t more = repeated_ - totals_.repeated.count; more > 0)
        add(&Totals::repeated, more);
    const Range handed_on{totals_.blocks - received_, totals_.blocks - received_};
    if (second_.uncertain_us < never_us) {
        const Range replaced = handed_on - blocks_since_second(most_missed);
        if (const std::int64_t more = replaced_.see(replaced)) add(&Totals::replaced, more);
        totals_.notices_missed_alone = std::max(
            totals_.notices_missed_alone,
            totals_.notices_missed.count - missed_before_replaced_ - replaced_.at_most(replaced));
    }

    longest_quiet_before_us_ = longest_quiet_us_;
    longest_quiet_us_ = 0;
    gap_in_notices_before_ = gap_in_notices_;
    gap_in_notices_ = false;
}

/// Blocks that were due between the end of the client's newest second and the player's newest
/// report, before which it may be by a moment: as many as the time had, but for what was held up,
/// and as many as notices, but for those missed.
Tally::Range Tally::blocks_since_second(std::int64_t most_notices_missed) const {
    const double beside_us =
        second_.uncertain_us + block_error_ * 2 * report_every_us +
        static_cast<double>(std::max(longest_quiet_us_, longest_quiet_before_us_));
    const auto blocks = [&](double us) { return us / block_us_; };
    const double least =
        blocks(static_cast<double>(report_.least_us) - second_.end_us - beside_us) - 1;
    const double most =
        blocks(static_cast<double>(report_.most_us) - second_.end_us + beside_us) + 1;
    Range range{static_cast<std::int64_t>(std::floor(least)),
                static_cast<std::int64_t>(std::ceil(most))};
    if (second_.uncertain_us > 0) return range;
    range.least = std::max(range.least, report_.notices.least - second_.seen.notices.most - 1);
    range.most = std::min(range.most,
                          report_.notices.most - second_.seen.notices.least + most_notices_missed);
    return range;
}

void Tally::count_periods() {
    const auto least_us = static_cast<double>(report_.least_us - earlier_report_.most_us);
    const auto most_us = static_cast<double>(report_.most_us - earlier_report_.least_us);
    const double least = least_us / block_us_ * (1 - most_clock_error) - 1;
    const double most = most_us / block_us_ * (1 + most_clock_error) + 1;
    const double expected = (least_us + most_us) / 2 / block_us_;
    const double periods = now_.callbacks_per_sec;
    const bool missed = periods < least - 1;
    const bool doubled = periods > most + 1;
    const double short_ppm = 1e6 * (1 - periods / expected);
    totals_.shortest_second_ppm =
        std::max(totals_.shortest_second_ppm, static_cast<std::int64_t>(short_ppm));
    if (missed) add(&Totals::periods_short, std::llround(expected - periods));
    if (doubled) add(&Totals::periods_long, std::llround(periods - expected));
    if (missed || doubled) clocks_.begin_stretch();
}

void Tally::compare_clocks() {
    if (now_us_ < unsettled_until_us_) {
        clocks_.begin_stretch();
        stretch_us_ = report_.most_us;
        stretch_blocks_ = totals_.blocks;
        return;
    }
    clocks_.add(totals_.blocks, totals_.periods);
    const ClockComparison::Result result = clocks_.result();
    totals_.server_faster_ppm = result.server_faster_ppm;
    // A device that a pause keeps from its periods looks slow.
    const double paused_ppm = 2e6 * static_cast<double>(totals_.paused_periods) /
                              static_cast<double>(std::max<std::int64_t>(totals_.periods, 1));
    totals_.clock_uncertainty_ppm =
        result.uncertainty_ppm == 0 ? 0 : result.uncertainty_ppm + paused_ppm;

    if (report_.most_us - stretch_us_ <= measured_after_us) return;
    block_error_ = measured_block_error;
    block_us_ = static_cast<double>(report_.most_us - stretch_us_) /
                static_cast<double>(totals_.blocks - stretch_blocks_);
}

/// Some troubles are known only with the next report, and some drop-outs come after their trouble:
/// a second's drop-outs are beside what was seen in it, right before and right after.
void Tally::attribute_drop_outs(std::int64_t drop_outs) {
    const bool settled = now_us_ >= unsettled_until_us_;
    bool explained = !settled;
    for (Watch& watch : watches_) {
        Trouble& trouble = totals_.*watch.trouble;
        explained = explained || watch.seen.any();
        const bool is_silence = watch.trouble == &Totals::silence;
        const bool counts = settled || is_silence;
        if (counts && watch.seen[0]) ++trouble.seconds;
        if ((counts && (watch.seen[0] || watch.seen[1])) || (is_silence && !settled))
            trouble.drop_outs += drop_outs;
        const bool is_new = watch.seen == 0b001;
        if (counts && is_new) trouble.drop_outs += drop_outs_before_;
        watch.seen <<= 1;
    }
    if (!explained && drop_outs_before_ > 0) {
        totals_.unexplained.count += drop_outs_before_;
        totals_.unexplained.drop_outs += drop_outs_before_;
        ++totals_.unexplained.seconds;
    }
    // A silence is known for one when it has lasted a second.
    if (settled_ && !settled) totals_.silence.drop_outs += drop_outs_two_before_;
    settled_ = settled;
    drop_outs_two_before_ = drop_outs_before_;
    drop_outs_before_ = drop_outs;
}

void Tally::add(Trouble Totals::*trouble, std::int64_t n) {
    (totals_.*trouble).count += n;
    std::ranges::find(watches_, trouble, &Watch::trouble)->seen.set(0);
}

}  // namespace tavistro::monitor
