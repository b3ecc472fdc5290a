#include "tools/monitor/account.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <tuple>
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

/// In the order of Cause.
constexpr std::array<std::string_view, cause_count> cause_names{
    "no engine",       "engine silent",   "engine stopped",  "engine failed", "server silent",
    "format mismatch", "network loss",    "missing notices", "late network",  "device stall",
    "device too slow", "device too fast", "device uneven",   "host overload"};

std::string time_text(double seconds) {
    const auto whole = static_cast<int>(seconds + 0.5);
    const int hours = whole / 3600;
    return hours > 0 ? fmt::format("{}:{:02}:{:02}", hours, whole / 60 % 60, whole % 60)
                     : fmt::format("{}:{:02}", whole / 60, whole % 60);
}

std::string when_text(const Span& when) {
    const std::string from = time_text(when.from_s);
    return when.until_s > when.from_s ? from + " to " + time_text(when.until_s) : from;
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

void tell_facts(const Stretch& s, std::vector<Fact>& facts) {
    const Totals& n = s.counted();
    const auto fact = [&](std::string_view name, const auto& count, const std::string& words) {
        if (std::invoke(count, n) != 0) facts.push_back({name, s.span_of(count), words});
    };
    const auto count_of = [](Trouble Totals::*trouble) {
        return [=](const Totals& t) { return (t.*trouble).count; };
    };
    for (const auto& [name, trouble, what] :
         {std::tuple{"blocks replaced", &Totals::replaced, "blocks played as silence"},
          {"blocks repeated", &Totals::repeated, "blocks that came again or too late"},
          {"notices missed", &Totals::notices_missed, "notices of the server's clock"}}) {
        const std::int64_t count = (n.*trouble).count;
        fact(name, count_of(trouble),
             fmt::format("{} {}, {:.2f} % of {}", count, what, percent(count, n.blocks), n.blocks));
    }
    fact("server silent", count_of(&Totals::silence),
         fmt::format("{:.1f} s without anything from the server", thousandth(n.silence.count)));
    fact("stream held up", count_of(&Totals::late),
         fmt::format("{} times, up to {:.1f} ms; the buffer holds {:.1f} ms", n.late.count,
                     thousandth(n.longest_late_us), s.buffer_ms()));
    for (const auto& [name, sum, what] :
         {std::tuple{"underruns", &Totals::underruns, "periods without a block to play"},
          {"overruns", &Totals::overruns, "blocks that found the buffer full"},
          {"blocks refused", &Totals::refused, "blocks dropped for their format"},
          {"capture dropped", &Totals::capture_dropped, "captured blocks dropped"}})
        fact(name, sum, fmt::format("{} {}", n.*sum, what));
    fact(
        "device periods",
        [](const Totals& t) { return t.periods_short.count + t.periods_long.count; },
        fmt::format("{} ran, {:.1f} s have {:.0f}; {} too few in {} seconds, {} too many in {}",
                    n.periods, thousandth(n.reported_ms), s.periods_due(), n.periods_short.count,
                    n.periods_short.seconds, n.periods_long.count, n.periods_long.seconds));
    fact("host pauses", count_of(&Totals::pauses),
         fmt::format("{} waits of this computer's threads of a block or more, up to {:.1f} ms",
                     n.pauses.count, thousandth(n.longest_pause_us)));
    if (n.clock_uncertainty_ppm > 0 && n.clock_uncertainty_ppm < least_certain_ppm)
        facts.push_back({"clocks", s.span(),
                         fmt::format("the server's is {:+.0f} +-{:.0f} ppm against the device's",
                                     n.server_faster_ppm, n.clock_uncertainty_ppm)});
}

/// What one run gives, piece by piece; a cause of neighbouring pieces is told once, with the counts
/// of all of them.
void judge_run(Samples run, const Sample& origin, Account& account) {
    const auto tell = [&](Cause cause, Samples samples) {
        const Stretch stretch(samples, origin);
        account.causes.push_back({cause, stretch.span(), words_for(cause, stretch)});
    };
    tell_facts(Stretch(run, origin), account.facts);
    std::map<Cause, Samples> open;
    for (const Samples& piece : pieces_of(run)) {
        const Stretch stretch(piece, origin);
        if (stretch.seconds() < least_watched_s) continue;
        const Proof proof = proof_of(stretch);
        std::erase_if(open, [&](const auto& known) {
            const bool goes_on = proof.causes.contains(known.first);
            if (!goes_on) tell(known.first, known.second);
            return !goes_on;
        });
        for (const Cause cause : proof.causes) {
            Samples& samples = open.try_emplace(cause, piece).first->second;
            samples = Samples(samples.data(), piece.data() + piece.size());
        }
        if (!proof.explains_all()) account.not_clear_yet = what_would_make_clear(stretch, proof);
    }
    for (const auto& [cause, samples] : open)
        tell(cause, samples);
}

void judge_presence(Samples samples, Account& account) {
    const Sample& last = samples.back();
    const double at = seconds_between(samples.front(), last);
    const auto tell = [&](Cause cause, std::string what) {
        account.causes.push_back({cause, {at, at}, std::move(what)});
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

}  // namespace

std::string_view cause_text(Cause cause) {
    return cause_names.at(static_cast<std::size_t>(cause));
}

Account judge(std::span<const Sample> samples) {
    Account account;
    if (samples.empty()) return account;
    account.watched_s = seconds_between(samples.front(), samples.back());
    account.from_ms = samples.front().time_ms;
    for (const Samples& run : runs_of(until_the_last_word(samples)))
        judge_run(run, samples.front(), account);
    judge_presence(samples, account);
    std::ranges::stable_sort(account.causes, {}, &Finding::cause);
    return account;
}

Accounts judge_each(std::span<const Sample> samples) {
    std::map<std::uint32_t, std::vector<Sample>> histories;
    for (const Sample& sample : samples)
        histories[sample.client_id].push_back(sample);
    Accounts accounts;
    for (const auto& [id, history] : histories)
        accounts.emplace(id, judge(history));
    return accounts;
}

std::vector<std::string> account_lines(const Account& account) {
    std::vector<std::string> lines;
    for (const Fact& fact : account.facts)
        lines.push_back(fmt::format("{}  {}: {}", when_text(fact.when), fact.name, fact.text));
    for (const Finding& finding : account.causes)
        lines.push_back(fmt::format("CAUSE {} ({}): {}", cause_text(finding.cause),
                                    when_text(finding.when), finding.text));
    if (!account.not_clear_yet.empty()) lines.push_back("not clear yet: " + account.not_clear_yet);
    return lines;
}

std::vector<std::string> tell(const Account& account) {
    std::vector<std::string> lines = account_lines(account);
    if (!account.nothing_wrong()) return lines;
    lines.push_back(account.watched_s < least_watched_s
                        ? "too short a time to judge"
                        : "nothing wrong in " + time_text(std::floor(account.watched_s)));
    return lines;
}

}  // namespace tavistro::monitor
