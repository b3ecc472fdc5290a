// The rules. A side is named only when the counts prove it:
//
//   server silent    a second or more without a notice, a block or an answer to a ping
//   format mismatch  blocks refused for their format, or periods at the rate of another one
//   network loss     blocks that silence was played for, and that did not come later either
//   late network     blocks that came after silence had taken their place; or a stream that was
//                    held up and came at once then, more often than this computer pauses
//   missing notices  more notices missing than blocks, or so many at a time that the buffer would
//                    have run empty if the blocks had been missing too
//   device stall     seconds with too few periods, more than this computer's pauses cost
//   device too slow, too fast
//                    drop-outs of one kind, as many as the measured difference of the clocks makes
//   device uneven    seconds with too few periods and seconds with too many, right on the whole; or
//                    drop-outs of both kinds beside nothing else, more often than this computer
//                    pauses
//   host overload    drop-outs that nothing above explains, and pauses that can make them
//
// Except for a silence, which needs no second look, each was seen twice at least, some seconds
// apart: once may be chance.
#include "tools/monitor/evidence.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>

namespace tavistro::monitor {

namespace {

/// Evidence was seen twice with so much time between, or lasted so long.
constexpr double lasts_s = 8;
/// What is counted did happen: two are enough when they lie apart.
constexpr std::int64_t fewest_blocks = 2;
/// Blocks and notices that went missing: fewer may be chance.
constexpr std::int64_t fewest_datagrams = 4;
/// Notices that may be missing alone by chance, where the network loses some of everything.
constexpr std::int64_t uncertain_blocks = 4;
/// Networks lose notices and blocks alike, give or take chance.
constexpr std::int64_t far_more = 3;
/// The share of late blocks, or of lost ones, that makes a cause of its own beside the other.
constexpr double least_share = 0.2;
/// The difference of two clocks that every buffer holds, in ppm.
constexpr double held_ppm = 100;
/// No clock of a computer or a sound card is further off than this, in ppm.
constexpr double most_clock_ppm = 5000;
/// Drop-outs are of one kind when those of the other are fewer than one in so many.
constexpr std::int64_t one_kind = 10;
/// Drop-outs come a little before and after the blocks that a clock gains.
constexpr double gain_slack = 1.5;
/// What a single pause of any computer may cost a device, in periods.
constexpr double least_pause_periods = 4;
/// Rates that devices have, in Hz; how exactly periods tell them, and after which time.
constexpr std::array known_rates{22050.0, 24000.0, 32000.0,  44100.0, 48000.0,
                                 88200.0, 96000.0, 176400.0, 192000.0};
constexpr double rate_accuracy = 0.002;
/// The periods that pauses may cost are fewer than one in so many of those that are off.
constexpr double far_from_pauses = 8;
/// A device at another rate is off in each second; a stall is much more off in one than on average.
constexpr double steady = 3;
constexpr std::int64_t least_rate_ms = 4000;

/// How many pauses a thread of the engine may have had. Those of the monitor's own thread are
/// counted; another is paused as often, give or take the square root of the number, four times
/// which is beyond doubt, or once by chance where none was seen.
double most_pauses(std::int64_t seen) {
    const auto n = static_cast<double>(seen);
    return 1 + n + 4 * std::sqrt(n);
}
bool more_than_pauses(std::int64_t events, std::int64_t pauses) {
    return static_cast<double>(events) > most_pauses(pauses);
}

class Judgement {
  public:
    explicit Judgement(const Stretch& stretch)
        : s_(stretch), n_(stretch.counted()), replaced_(n_.replaced.count) {
        judge_silence();
        if (judge_format()) return;
        judge_blocks();
        judge_notices();
        judge_lateness();
        judge_periods();
        judge_clocks();
        judge_evenness();
        judge_host();
    }
    Proof take() {
        return {std::move(causes_), most_is_left() ? left() : 0, lost_is_named_ ? 0 : replaced_};
    }

  private:
    void name(Cause cause, std::int64_t drop_outs) {
        causes_.insert(cause);
        explained_ += drop_outs;
    }
    std::int64_t left() const { return s_.drop_outs() - explained_; }
    /// Half of the drop-outs or more.
    bool is_most(std::int64_t drop_outs) const { return 2 * drop_outs >= s_.drop_outs(); }
    bool most_is_left() const { return left() > 0 && is_most(left()); }
    template <typename Count>
    bool lasts(const Count& count) const {
        const Span when = s_.span_of(count);
        return when.until_s - when.from_s >= lasts_s;
    }
    bool lasts(Trouble Totals::*trouble) const {
        return lasts([=](const Totals& t) { return (t.*trouble).seconds; });
    }

    void judge_silence() {
        constexpr std::int64_t at_its_ends = 10;
        if (n_.silence.count == 0) return;
        name(Cause::server_silent, n_.silence.drop_outs);
        // Blocks that it may have cost.
        const double ms = static_cast<double>(n_.silence.count);
        const std::int64_t most = std::llround(1e3 * ms / s_.block_us()) + at_its_ends;
        replaced_ = std::max<std::int64_t>(replaced_ - most, 0);
    }

    bool judge_format() {
        const bool refused = 2 * n_.refused > n_.blocks;
        const Stretch::Rate rate = s_.another_rate();
        maybe_another_rate_ = rate.hz != 0;
        if (!refused && !rate.is_sure) return false;
        name(Cause::format_mismatch, s_.drop_outs());
        return true;
    }

    void judge_blocks() {
        const auto replaced = static_cast<double>(replaced_);
        const auto late = static_cast<double>(n_.repeated.count);
        // Few blocks are sure to be lost by the notices that are.
        const bool few_notices =
            n_.notices_missed.count <= far_more * (replaced_ + uncertain_blocks);
        const bool seen =
            lasts(&Totals::replaced) || (few_notices && lasts(&Totals::notices_missed));
        if (replaced_ < 1 || !seen || replaced_ + n_.notices_missed.count < fewest_datagrams)
            return;
        // A network that doubles blocks hides which of them were late.
        if (late > (1 + least_share) * replaced + fewest_blocks) return;
        const double least = std::max<double>(1, least_share * replaced);
        // Notices go the same way as blocks, and are known to be missing sooner.
        const std::int64_t beside = std::max(n_.replaced.drop_outs, n_.notices_missed.drop_outs);
        if (replaced - late >= least) name(Cause::network_loss, beside);
        if (late >= least) name(Cause::late_network, beside);
        lost_is_named_ = true;
    }

    void judge_notices() {
        const Trouble& missed = n_.notices_missed;
        const auto alone_by_chance =
            static_cast<std::int64_t>(3 * std::sqrt(static_cast<double>(missed.count)));
        const std::int64_t of_silence = n_.silence.count > 0 ? missed.count / 2 : 0;
        const bool alone =
            n_.notices_missed_alone - of_silence > std::max(uncertain_blocks, alone_by_chance) &&
            2 * n_.notices_missed_alone > missed.count;
        // The buffer did not run empty meanwhile: the blocks did come.
        const bool blocks_came =
            lasts(&Totals::notice_gaps) && 2 * n_.notice_gaps.drop_outs < n_.notice_gaps.count;
        if (lasts(&Totals::notices_missed) && (alone || blocks_came))
            name(Cause::missing_notices, 0);
    }

    void judge_lateness() {
        if (s_.drop_outs() > 0 && lasts(&Totals::late) && is_most(n_.late.drop_outs) &&
            more_than_pauses(n_.late.count, n_.long_pauses))
            name(Cause::late_network, n_.late.drop_outs);
    }

    void judge_periods() {
        // Pauses are of any length; nearly all are shorter than the longest.
        const double longest_periods =
            std::max(least_pause_periods, static_cast<double>(n_.longest_pause_us) / s_.block_us());
        const bool missed =
            lasts(&Totals::periods_short) && static_cast<double>(n_.periods_short.count) >
                                                 longest_periods * most_pauses(n_.pauses.count);
        const bool doubled = lasts(&Totals::periods_long);
        // On the whole, clocks that differ apart.
        const double due = s_.periods_due();
        const double clocks = std::abs(n_.server_faster_ppm) * 1e-6 * due;
        const double too_many = static_cast<double>(n_.periods) - due;
        const bool short_on_the_whole =
            2 * (-too_many - clocks) > static_cast<double>(n_.periods_short.count);
        if (maybe_another_rate_) return;
        if (doubled && too_many > most_clock_ppm * 1e-6 * due) {
            name(Cause::device_too_fast, n_.periods_long.drop_outs);
        } else if (missed && short_on_the_whole) {
            name(Cause::device_stall, n_.periods_short.drop_outs);
        } else if (missed && doubled && s_.drop_outs() > 0) {
            name(Cause::device_uneven, s_.drop_outs());
        }
    }

    void judge_clocks() {
        const double ppm = n_.server_faster_ppm;
        if (n_.clock_uncertainty_ppm == 0) return;
        // A clock that is off makes one kind of drop-out, and no more than it gains in blocks.
        const bool slow = ppm > 0;
        const std::int64_t made = slow ? n_.overruns : n_.underruns;
        const std::int64_t other = (slow ? n_.underruns : n_.overruns) - n_.silence.drop_outs;
        const double gained =
            (std::abs(ppm) + n_.clock_uncertainty_ppm) * 1e-6 * static_cast<double>(n_.blocks);
        const bool like_a_clock = one_kind * other <= made &&
                                  static_cast<double>(made) <= gain_slack * gained + fewest_blocks;
        const bool is_off = std::abs(ppm) - n_.clock_uncertainty_ppm > held_ppm;
        if (!like_a_clock || !is_off || !lasts(slow ? &Totals::overruns : &Totals::underruns))
            return;
        const Cause slow_side = ppm < most_clock_ppm ? Cause::device_too_slow : Cause::device_stall;
        name(slow ? slow_side : Cause::device_too_fast, made);
    }

    void judge_evenness() {
        // A clock that is off, known or not yet, makes one kind.
        const auto [fewer, more] = std::minmax(n_.underruns, n_.overruns);
        if (one_kind * fewer > more && most_is_left() && lasts(&Totals::unexplained) &&
            n_.unexplained.count >= fewest_blocks && is_most(n_.unexplained.count) &&
            more_than_pauses(n_.unexplained.seconds, n_.pauses.count))
            name(Cause::device_uneven, n_.unexplained.count);
    }

    void judge_host() {
        // A pause makes as many drop-outs as it costs periods, and one of a thread that was not
        // seen as many again.
        if (most_is_left() && lasts(&Totals::pauses) && 2 * n_.paused_periods >= left())
            name(Cause::host_overload, left());
    }

    const Stretch& s_;
    const Totals& n_;
    std::int64_t replaced_;  ///< blocks, without those of a silence
    std::set<Cause> causes_;
    std::int64_t explained_ = 0;  ///< underruns and overruns
    bool lost_is_named_ = false;
    bool maybe_another_rate_ = false;
};

std::string drop_outs_text(const Totals& n) {
    return fmt::format("{} underruns, {} overruns", n.underruns, n.overruns);
}

/// "3 blocks (1.50 %)"
std::string share_text(std::int64_t part, std::string_view what, std::int64_t whole) {
    return fmt::format("{} {} ({:.2f} %)", part, what, percent(part, whole));
}

std::string lateness_words(const Stretch& s) {
    const Totals& n = s.counted();
    const std::int64_t out_of_turn = std::min(n.repeated.count, n.replaced.count);
    std::string words;
    if (out_of_turn >= fewest_blocks)
        words = share_text(out_of_turn, "blocks", n.blocks) +
                " came after silence had been played for them";
    if (n.late.count == 0) return words;
    const double needed = std::ceil(static_cast<double>(n.longest_late_us) / s.block_us()) + 3;
    words += fmt::format(
        "{}{} times the stream was held up, for up to {:.0f} ms; the buffer holds {:.1f} ms; {}",
        words.empty() ? "" : "; ", n.late.count, thousandth(n.longest_late_us), s.buffer_ms(),
        drop_outs_text(n));
    if (needed * s.block_us() / 1e3 > s.buffer_ms())
        words += fmt::format("; client_latency_blocks = {:.0f} would hold it", needed);
    return words;
}

std::string clock_words(const Stretch& s, const char* side) {
    const Totals& n = s.counted();
    return fmt::format(
        "the device's clock is {} by {:.0f} +-{:.0f} ppm against the server's, or periods are {} "
        "all the time; {}",
        side, std::abs(n.server_faster_ppm), n.clock_uncertainty_ppm,
        n.server_faster_ppm > 0 ? "missed" : "doubled", drop_outs_text(n));
}

}  // namespace

Stretch::Stretch(std::span<const Sample> samples, const Sample& origin)
    : samples_(samples),
      origin_(origin),
      counted_(samples.back().totals - samples.front().totals) {}

Span Stretch::span() const {
    return {at(0), at(samples_.size() - 1)};
}

Stretch::Rate Stretch::another_rate() const {
    const Totals& n = counted_;
    const std::int64_t others = std::max(n.periods_short.seconds, n.periods_long.seconds);
    if (n.reported_ms < least_rate_ms || std::int64_t{2000} * others < n.reported_ms) return {};
    const double rate = 1e3 * last().stream_block_frames * static_cast<double>(n.periods) /
                        static_cast<double>(n.reported_ms);
    // Pauses keep a device of any rate from some of its periods: twice what was seen, at most.
    const double paused_share = static_cast<double>(n.paused_periods) * block_us() /
                                (1e3 * static_cast<double>(n.reported_ms));
    // All the time, not a lot now and then.
    const double off = std::abs(1 - rate / last().stream_sample_rate);
    if (static_cast<double>(n.shortest_second_ppm) * 1e-6 > steady * off + paused_share) return {};
    // Far from the stream's rate nothing else is near.
    const double accuracy = std::max(rate_accuracy, off / 40);
    const double least = rate * (1 - accuracy);
    const double most = rate * (1 + accuracy) * (1 + 2 * paused_share);
    const auto between = [=](double known) { return least <= known && known <= most; };
    if (between(last().stream_sample_rate)) return {};
    const auto* const found = std::ranges::find_if(known_rates, between);
    if (found == known_rates.end()) return {};
    return {*found, far_from_pauses * paused_share < off};
}

double percent(std::int64_t part, std::int64_t whole) {
    return 100.0 * static_cast<double>(part) /
           static_cast<double>(std::max<std::int64_t>(whole, 1));
}

Proof proof_of(const Stretch& stretch) {
    return Judgement(stretch).take();
}

std::string words_for(Cause cause, const Stretch& s) {
    const Totals& n = s.counted();
    switch (cause) {
        case Cause::server_silent:
            return fmt::format(
                "nothing came from the server for {:.1f} s: it stopped, or the network is cut",
                thousandth(n.silence.count));
        case Cause::format_mismatch: {
            const std::string stream =
                fmt::format("{} Hz in blocks of {} frames", s.last().stream_sample_rate,
                            s.last().stream_block_frames);
            if (const double rate = s.another_rate().hz; rate != 0)
                return fmt::format(
                    "the device runs at {:.0f} Hz, or with another period; the stream has {}", rate,
                    stream);
            return fmt::format(
                "{} blocks were refused: the device runs in another format than the stream, {}",
                n.refused, stream);
        }
        case Cause::network_loss:
            return share_text(n.replaced.count - std::min(n.repeated.count, n.replaced.count),
                              "blocks", n.blocks) +
                   " never came; silence was played for them";
        case Cause::missing_notices:
            return share_text(n.notices_missed.count, "notices of the server's clock", n.blocks) +
                   " never came, while the audio did; no input was sent for them";
        case Cause::late_network:
            return lateness_words(s);
        case Cause::device_stall: {
            const std::int64_t missed =
                n.periods_short.count > 0
                    ? n.periods_short.count
                    : std::llround(n.server_faster_ppm * 1e-6 * static_cast<double>(n.blocks));
            return fmt::format("the device missed {} periods ({:.2f} %, {:.2f} s); {}", missed,
                               percent(missed, n.periods + missed),
                               static_cast<double>(missed) * s.block_us() / 1e6, drop_outs_text(n));
        }
        case Cause::device_too_slow:
            return clock_words(s, "slow");
        case Cause::device_too_fast:
            if (n.periods_long.count == 0) return clock_words(s, "fast");
            return fmt::format("the device asked for {} more than its rate has; {}",
                               share_text(n.periods_long.count, "periods", n.periods),
                               drop_outs_text(n));
        case Cause::device_uneven:
            return fmt::format(
                "{}, while the network was punctual and this computer did not pause: the device's "
                "periods come unevenly; the buffer holds {:.1f} ms, try more client_latency_blocks",
                drop_outs_text(n), s.buffer_ms());
        case Cause::host_overload:
            return fmt::format("{} pauses of this computer's threads, up to {:.1f} ms; {}",
                               n.pauses.count, thousandth(n.longest_pause_us), drop_outs_text(n));
        case Cause::engine_absent:
        case Cause::engine_silent:
        case Cause::engine_ended:
        case Cause::engine_failed:
            break;
    }
    return {};
}

std::string what_would_make_clear(const Stretch& s, const Proof& proof) {
    constexpr double long_enough_s = 120;
    const Totals& n = s.counted();
    std::string words = "no side is proven for ";
    if (proof.drop_outs > 0) words += fmt::format("{} underruns and overruns", proof.drop_outs);
    if (proof.drop_outs > 0 && proof.replaced > 0) words += " and ";
    if (proof.replaced > 0) words += fmt::format("{} blocks replaced by silence", proof.replaced);
    words += ". ";
    if (s.seconds() < long_enough_s)
        words += fmt::format("Watch for two minutes (this was {:.0f} s). ", s.seconds());
    if (n.pauses.count > 0)
        return words + fmt::format(
                           "This computer let threads wait, {} times, up to {:.1f} ms: end other "
                           "programs or grant real-time priority, and see whether it goes.",
                           n.pauses.count, thousandth(n.longest_pause_us));
    if (n.late.count > 0 || n.replaced.count > 0 || n.notices_missed.count > 0)
        return words + "Try a cable, or a server on this computer: if it goes, it was the network.";
    return words +
           "Try twice the client_latency_blocks: if it goes, periods or blocks come unevenly; if "
           "it only gets rarer, two clocks differ.";
}

}  // namespace tavistro::monitor
