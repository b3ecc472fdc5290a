#include "tools/monitor/account.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "tavistro/engine.h"
#include "tools/monitor/evidence.h"
#include "tools/readings/texts.h"

namespace tavistro::monitor {

namespace {

/// A rare fault takes this long to be seen often enough; an hour's faults are not all of one hour.
constexpr double piece_s = 120;
/// A difference of two clocks that is known no better than this says nothing.
constexpr double least_certain_ppm = 500;

constexpr std::pair<Cause, std::string_view> cause_names[] = {
    {Cause::engine_absent, "no engine"},         {Cause::engine_silent, "engine silent"},
    {Cause::engine_ended, "engine stopped"},     {Cause::engine_failed, "engine failed"},
    {Cause::server_silent, "server silent"},     {Cause::format_mismatch, "format mismatch"},
    {Cause::network_loss, "network loss"},       {Cause::missing_notices, "missing notices"},
    {Cause::late_network, "late network"},       {Cause::device_stall, "device stall"},
    {Cause::device_too_slow, "device too slow"}, {Cause::device_too_fast, "device too fast"},
    {Cause::device_uneven, "device uneven"},     {Cause::host_overload, "host overload"},
};

template <typename... Values>
std::string text(const char* format, Values... values) {
    char buffer[200];
    std::snprintf(buffer, sizeof buffer, format, values...);
    return buffer;
}

std::string time_text(double seconds) {
    const auto whole = static_cast<long long>(seconds + 0.5);
    return text("%lld:%02lld", whole / 60, whole % 60);
}

using Samples = std::span<const Sample>;

/// The samples of each run of the audio path.
std::vector<Samples> runs_of(Samples samples) {
    std::vector<Samples> runs;
    const auto counts = [](const Sample& sample) { return sample.stats && sample.totals.run > 0; };
    for (std::size_t first = 0; first < samples.size();) {
        std::size_t last = first + 1;
        while (last < samples.size() && counts(samples[last]) &&
               samples[last].totals.run == samples[first].totals.run)
            ++last;
        if (counts(samples[first])) runs.push_back(samples.subspan(first, last - first));
        first = last;
    }
    return runs;
}

/// A run in pieces of about `piece_s`, which share their ends; the newest is whole.
std::vector<Samples> pieces_of(Samples run) {
    std::vector<Samples> pieces;
    while (run.size() > 1) {
        std::size_t first = run.size() - 1;
        while (first > 0 && seconds_between(run[first - 1], run.back()) <= piece_s)
            --first;
        // A rest too short to judge belongs to the piece after it.
        if (seconds_between(run.front(), run[first]) < piece_s / 2) first = 0;
        first = std::min(first, run.size() - 2);
        pieces.push_back(run.subspan(first));
        run = run.first(first + 1);
    }
    std::ranges::reverse(pieces);
    return pieces;
}

/// What one run gives, piece by piece; a cause of neighbouring pieces is told once, with the counts
/// of all of them.
class RunAccount {
  public:
    RunAccount(Samples run, const Sample& origin, Account& account)
        : run_(run), origin_(origin), account_(account) {}

    void judge() {
        tell_facts(Stretch(run_, origin_));
        std::vector<std::pair<Cause, Samples>> open;
        for (const Samples& piece : pieces_of(run_)) {
            const Stretch stretch(piece, origin_);
            if (stretch.seconds() < least_watched_s) continue;
            const Proof proof = proof_of(stretch);
            std::vector<std::pair<Cause, Samples>> still_open;
            for (const auto& [cause, samples] : open) {
                if (std::ranges::find(proof.causes, cause) == proof.causes.end())
                    tell(cause, samples);
            }
            for (const Cause cause : proof.causes) {
                const auto known =
                    std::ranges::find(open, cause, &std::pair<Cause, Samples>::first);
                const auto* const from = known == open.end() ? piece.data() : known->second.data();
                still_open.emplace_back(cause, Samples(from, piece.data() + piece.size()));
            }
            open = std::move(still_open);
            if (!proof.explains_all())
                account_.not_clear_yet = what_would_make_clear(stretch, proof);
        }
        for (const auto& [cause, samples] : open)
            tell(cause, samples);
    }

  private:
    void tell(Cause cause, Samples samples) {
        const Stretch stretch(samples, origin_);
        const Span span = stretch.span();
        account_.causes.push_back({cause, span.from_s, span.until_s, words_for(cause, stretch)});
    }

    template <typename Count>
    void fact(const Stretch& s, std::string_view name, const Count& count, std::string words) {
        if (count(s.counted()) == 0) return;
        const Span span = s.span_of(count);
        account_.facts.push_back({name, span.from_s, span.until_s, std::move(words)});
    }

    void tell_facts(const Stretch& s) {
        const Totals& n = s.counted();
        const auto counted = [](std::int64_t count, const char* what) {
            return text("%lld %s", static_cast<long long>(count), what);
        };
        const auto of_blocks = [&](const Trouble& trouble, const char* what) {
            return text("%lld %s, %.2f %% of %lld", static_cast<long long>(trouble.count), what,
                        100.0 * static_cast<double>(trouble.count) /
                            static_cast<double>(std::max<std::int64_t>(n.blocks, 1)),
                        static_cast<long long>(n.blocks));
        };
        const auto ms = [](std::int64_t us) { return static_cast<double>(us) / 1e3; };
        fact(
            s, "blocks replaced", [](const Totals& t) { return t.replaced.count; },
            of_blocks(n.replaced, "blocks played as silence"));
        fact(
            s, "blocks repeated", [](const Totals& t) { return t.repeated.count; },
            of_blocks(n.repeated, "blocks that came again or too late"));
        fact(
            s, "notices missed", [](const Totals& t) { return t.notices_missed.count; },
            of_blocks(n.notices_missed, "notices of the server's clock"));
        fact(
            s, "server silent", [](const Totals& t) { return t.silence.count; },
            text("%.1f s without anything from the server",
                 static_cast<double>(n.silence.count) / 1e3));
        fact(
            s, "stream held up", [](const Totals& t) { return t.late.count; },
            text("%lld times, up to %.1f ms; the buffer holds %.1f ms",
                 static_cast<long long>(n.late.count), ms(n.longest_late_us), s.buffer_ms()));
        fact(
            s, "underruns", [](const Totals& t) { return t.underruns; },
            counted(n.underruns, "periods without a block to play"));
        fact(
            s, "overruns", [](const Totals& t) { return t.overruns; },
            counted(n.overruns, "blocks that found the buffer full"));
        fact(
            s, "blocks refused", [](const Totals& t) { return t.refused; },
            counted(n.refused, "blocks dropped for their format"));
        fact(
            s, "capture dropped", [](const Totals& t) { return t.capture_dropped; },
            counted(n.capture_dropped, "captured blocks dropped"));
        fact(
            s, "device periods",
            [](const Totals& t) { return t.periods_short.count + t.periods_long.count; },
            text("%lld ran, %.1f s have %.0f; %lld too few in %lld seconds, %lld too many in %lld",
                 static_cast<long long>(n.periods), static_cast<double>(n.reported_ms) / 1e3,
                 static_cast<double>(n.reported_ms) * 1e3 / s.block_us(),
                 static_cast<long long>(n.periods_short.count),
                 static_cast<long long>(n.periods_short.seconds),
                 static_cast<long long>(n.periods_long.count),
                 static_cast<long long>(n.periods_long.seconds)));
        fact(
            s, "host pauses", [](const Totals& t) { return t.pauses.count; },
            text("%lld waits of this computer's threads of a block or more, up to %.1f ms",
                 static_cast<long long>(n.pauses.count), ms(n.longest_pause_us)));
        if (n.clock_uncertainty_ppm > 0 && n.clock_uncertainty_ppm < least_certain_ppm) {
            const Span span = s.span();
            account_.facts.push_back({"clocks", span.from_s, span.until_s,
                                      text("the server's is %+.0f +-%.0f ppm against the device's",
                                           n.server_faster_ppm, n.clock_uncertainty_ppm)});
        }
    }

    Samples run_;
    const Sample& origin_;
    Account& account_;
};

void judge_presence(Samples samples, Account& account) {
    const Sample& last = samples.back();
    const double at = seconds_between(samples.front(), last);
    const auto tell = [&](Cause cause, std::string what) {
        account.causes.push_back({cause, at, at, std::move(what)});
    };
    if (last.presence == Presence::absent) {
        tell(Cause::engine_absent, "no engine with this client_id");
    } else if (last.presence == Presence::silent) {
        tell(Cause::engine_silent,
             "the engine's block is there, but nobody writes it: its process died or hangs");
    } else if (last.presence == Presence::ended && last.stats->state == TAVISTRO_STATE_FAILED) {
        tell(Cause::engine_failed, std::string(readings::error_text(last.stats->error_code)));
    } else if (last.presence == Presence::ended) {
        tell(Cause::engine_ended, "the run was stopped");
    }
}

/// Without the readings of an engine that had died or hung already.
Samples until_the_last_word(Samples samples) {
    if (samples.back().presence != Presence::silent) return samples;
    while (samples.size() > 1 && samples[samples.size() - 2].stats &&
           is_same(*samples[samples.size() - 2].stats, *samples.back().stats))
        samples = samples.first(samples.size() - 1);
    return samples;
}

std::string when_text(double from_s, double until_s) {
    return until_s > from_s ? time_text(from_s) + " to " + time_text(until_s) : time_text(from_s);
}

}  // namespace

std::string_view cause_text(Cause cause) {
    return std::ranges::find(cause_names, cause, [](const auto& name) { return name.first; })
        ->second;
}

Account judge(std::span<const Sample> samples) {
    Account account;
    if (samples.empty()) return account;
    account.watched_s = seconds_between(samples.front(), samples.back());
    for (const Samples& run : runs_of(until_the_last_word(samples)))
        RunAccount(run, samples.front(), account).judge();
    judge_presence(samples, account);
    std::ranges::stable_sort(account.causes, {}, &Finding::cause);
    return account;
}

std::vector<std::string> account_lines(const Account& account) {
    std::vector<std::string> lines;
    for (const Fact& fact : account.facts)
        lines.push_back(when_text(fact.from_s, fact.until_s)
                            .append("  ")
                            .append(fact.name)
                            .append(": ")
                            .append(fact.text));
    for (const Finding& finding : account.causes)
        lines.push_back(std::string("CAUSE ")
                            .append(cause_text(finding.cause))
                            .append(" (")
                            .append(when_text(finding.from_s, finding.until_s))
                            .append("): ")
                            .append(finding.text));
    if (!account.not_clear_yet.empty()) lines.push_back("not clear yet: " + account.not_clear_yet);
    return lines;
}

}  // namespace tavistro::monitor
