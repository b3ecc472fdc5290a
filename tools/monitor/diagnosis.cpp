#include "tools/monitor/diagnosis.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

#include "tavistro/engine.h"
#include "tools/host/texts.h"
#include "tools/monitor/interval.h"

namespace tavistro::monitor {

namespace {

constexpr double piece_s = 30;

/// A clock that is further off than this is none: periods are missing, or too many.
constexpr double most_ppm_of_a_clock = 10'000;
/// Drift that a default buffer holds without being noticed.
constexpr double least_ppm_told = 150;
/// A fill that swings by blocks is never quite on target.
constexpr double least_blocks_off = 1.5;
constexpr double least_replaced_per_s = 0.5;
constexpr double least_replaced = 5;
constexpr double much_lost_percent = 10;
constexpr double least_late_us = 2500;
constexpr double least_notices_missed = 0.03;  ///< of all
constexpr double most_pauses_per_s = 3;  // of a busy computer, that a device may miss periods for
constexpr double spare_blocks = 3;

constexpr std::pair<Cause, std::string_view> cause_names[] = {
    {Cause::engine_absent, "no engine"},         {Cause::engine_silent, "engine silent"},
    {Cause::engine_ended, "engine stopped"},     {Cause::engine_failed, "engine failed"},
    {Cause::server_stopped, "server stopped"},   {Cause::format_mismatch, "format mismatch"},
    {Cause::device_stall, "device stall"},       {Cause::host_overload, "host overload"},
    {Cause::network_loss, "network loss"},       {Cause::missing_notices, "missing notices"},
    {Cause::late_network, "late network"},       {Cause::device_too_slow, "device too slow"},
    {Cause::device_too_fast, "device too fast"}, {Cause::buffer_too_small, "buffer too small"},
};

template <typename... Values>
std::string text(const char* format, Values... values) {
    char buffer[400];
    std::snprintf(buffer, sizeof buffer, format, values...);
    return buffer;
}

std::string drop_outs(const Interval& in) {
    return text("%lld underruns and %lld overruns in %.0f s", static_cast<long long>(in.underruns),
                static_cast<long long>(in.overruns), in.seconds);
}

/// How far apart the notices of the server's clock arrived, as far as the buckets tell, in us.
struct Spread {
    double at_least = 0;
    double at_most = 0;
    std::int64_t late = 0;  ///< notices that came more than a block after the first in time
};

Spread spread_of(const Interval& in) {
    const Histogram& counts = in.sync_delays;
    std::size_t first = 0;
    while (first < counts.size() && counts[first] == 0)
        ++first;
    if (first == counts.size()) return {};
    std::size_t last = counts.size() - 1;
    while (counts[last] == 0)
        --last;
    const auto from = [](std::size_t i) -> double {
        return i == 0 ? 0 : histogram_bounds_us[i - 1];
    };
    const double first_until = histogram_bounds_us[first];
    Spread spread;
    spread.at_least = std::max(0.0, from(last) - first_until);
    spread.at_most =
        std::min<double>(histogram_bounds_us[last], in.last.sync_delay_max_us) - from(first);
    for (std::size_t i = first; i <= last; ++i) {
        if (from(i) - first_until > in.block_us()) spread.late += counts[i];
    }
    return spread;
}

class Judgement {
  public:
    explicit Judgement(std::span<const Step> steps)
        : from_s_(steps.front().from_s), until_s_(steps.back().until_s), in_(steps) {
        judge_server(steps);
        if (in_.seconds < least_readings - 2 || !in_.has_format() || in_.last.target_frames == 0)
            return;
        spread_ = spread_of(in_);
        const bool device_explains = judge_periods();
        const bool host_explains = judge_host();
        const bool network_explains = judge_network(host_explains);
        if (!device_explains && !host_explains && !network_explains) judge_clocks();
    }
    std::vector<Finding> take() { return std::move(findings_); }

  private:
    void tell(Cause cause, double weight, std::string what) {
        findings_.push_back({cause, from_s_, until_s_, weight, std::move(what)});
    }
    std::int64_t slips() const { return in_.slips(); }
    double host_pause_us() const { return in_.longest_pause_us; }

    void judge_server(std::span<const Step> steps) {
        if (in_.quiet_seconds == 0) return;
        const bool nobody_wrote = std::ranges::all_of(
            steps, [](const Step& step) { return is_same(step.before, step.after); });
        tell(Cause::server_stopped, in_.quiet_seconds,
             text("nothing came from the server for %.0f s: it stopped, or the way to it is cut%s",
                  in_.quiet_seconds, nobody_wrote ? "; or the engine hangs" : ""));
    }

    /// Whether the device runs its periods at all as the stream wants them.
    bool judge_periods() {
        const double ppm = 1e6 * (in_.periods_per_s / in_.blocks_per_s() - 1);
        if (in_.still_seconds > 0) {
            tell(Cause::device_stall, in_.still_seconds,
                 text("the device stood still for %.0f s; %s", in_.still_seconds,
                      drop_outs(in_).c_str()));
            return true;
        }
        if (judge_format(ppm)) return true;
        if (std::abs(ppm) < most_ppm_of_a_clock) return false;
        if (ppm < 0 && host_missed(-ppm)) return true;
        if (ppm < 0) {
            tell(Cause::device_stall, -ppm,
                 text("the device missed %.1f %% of its periods; %s", -ppm / 1e4,
                      drop_outs(in_).c_str()));
        } else {
            tell(
                Cause::device_too_fast, ppm,
                text("the device asks for %.1f %% more periods than its rate allows (%.0f ppm); %s",
                     ppm / 1e4, ppm, drop_outs(in_).c_str()));
        }
        return true;
    }

    bool judge_format(double ppm) {
        const bool nothing_queued =
            in_.received_per_s > 1 && in_.queued_per_s == 0 && in_.dropped > in_.overruns;
        const double device_rate = in_.periods_per_s * in_.last.stream_block_frames;
        const double rates[] = {22050, 24000, 32000, 44100, 48000, 88200, 96000, 176400, 192000};
        const auto* const found = std::ranges::find_if(
            rates, [=](double rate) { return std::abs(device_rate / rate - 1) < 0.006; });
        const bool another_rate = std::abs(ppm) > most_ppm_of_a_clock && found != std::end(rates) &&
                                  *found != in_.last.stream_sample_rate;
        if (another_rate) {
            tell(Cause::format_mismatch, std::abs(ppm),
                 text("the device runs at %.0f Hz, or with another period, while the stream has "
                      "%u Hz in blocks of %u frames",
                      *found, in_.last.stream_sample_rate, in_.last.stream_block_frames));
        } else if (nothing_queued) {
            tell(Cause::format_mismatch, 1e6,
                 "every block is refused: the device runs in another format than the stream");
        }
        return another_rate || nothing_queued;
    }

    // A pause now and then is not to blame for drop-outs at any time.
    bool host_late() const {
        return host_pause_us() > in_.long_pause_us() && slips() > 0 &&
               2 * in_.slips_beside_pauses >= slips();
    }
    /// A device whose thread waits for a processor misses its periods: `ppm`, microseconds in each
    /// second, is no more than some such waits a second.
    bool host_missed(double ppm) const {
        return host_late() && ppm <= most_pauses_per_s * host_pause_us();
    }

    /// Whether this computer let the engine's threads wait.
    bool judge_host() {
        if (!host_late()) return false;
        const double pause_us = host_pause_us();
        tell(Cause::host_overload, static_cast<double>(slips()),
             text("this computer let threads wait for up to %.1f ms, %.1f blocks (%s); %s",
                  pause_us / 1e3, pause_us / in_.block_us(),
                  pause_us > in_.host_late_us ? "seen in the engine's own threads"
                                              : "seen in the monitor's own thread",
                  drop_outs(in_).c_str()));
        return true;
    }

    bool judge_network(bool host_explains) {
        const double replaced = in_.replaced_per_s();
        const bool lost =
            replaced > least_replaced_per_s && replaced * in_.seconds > least_replaced;
        const bool came_late = lost && in_.repeated_per_s > replaced / 2;
        if (lost && !came_late) {
            const double percent = 100 * replaced / in_.blocks_per_s();
            tell(Cause::network_loss, replaced,
                 text("%.1f blocks a second (%.1f %%) never came; silence was played for them%s",
                      replaced, percent,
                      percent < much_lost_percent ? ""
                                                  : "; or another engine has this client_id, and "
                                                    "the server serves them in turn"));
        } else if (came_late) {
            tell(Cause::late_network, replaced,
                 text("%.1f blocks a second (%.1f %%) came after their turn; silence was played "
                      "for them",
                      replaced, 100 * replaced / in_.blocks_per_s()));
        }
        if (!lost) judge_notices();
        const bool held = slips() == 0;
        // What the buffer holds with ease is no finding, and a few late blocks are not to blame for
        // many drop-outs.
        const double told_from_us = held ? in_.latency_blocks() * in_.block_us() / 2
                                         : std::max(least_late_us, in_.block_us());
        const bool late = spread_.at_least > told_from_us && 2 * spread_.late >= slips() &&
                          !(host_explains && spread_.at_least < 2 * host_pause_us());
        // Many blocks lost in a row outlast the buffer, and the silence for them is too much for it
        // then.
        const bool loss_explains = lost && in_.overruns <= in_.underruns &&
                                   static_cast<double>(in_.underruns) <= replaced * in_.seconds;
        if (!late) return came_late || loss_explains;
        const double needed = std::ceil(spread_.at_most / in_.block_us()) + spare_blocks;
        if (!came_late) {
            tell(Cause::late_network, spread_.at_most / 1e3,
                 text("the server's blocks come up to %.0f ms late; %s", spread_.at_most / 1e3,
                      held ? "the buffer held it" : drop_outs(in_).c_str()));
        }
        if (!held && needed > in_.latency_blocks()) {
            tell(Cause::buffer_too_small, static_cast<double>(slips()),
                 text("client_latency_blocks is %.0f (%.1f ms); %.0f would hold the lateness seen",
                      in_.latency_blocks(), in_.latency_blocks() * in_.block_us() / 1e3, needed));
        }
        return true;
    }

    void judge_notices() {
        const double missed = 1 - in_.notices_per_s / in_.blocks_per_s();
        if (missed < least_notices_missed) return;
        tell(
            Cause::missing_notices, missed,
            text("%.1f %% of the notices of the server's clock never came, while the audio did; no "
                 "input was sent for them",
                 100 * missed));
    }

    /// Whether the two clocks, or the device's punctuality, are more than the buffer holds.
    void judge_clocks() {
        const double slipped_ppm = 1e6 * static_cast<double>(in_.overruns - in_.underruns) *
                                   in_.last.stream_block_frames /
                                   static_cast<double>(std::max<std::int64_t>(
                                       in_.rendered_frames, in_.last.stream_block_frames));
        const double held_ppm = in_.read_speed_ppm;
        const double server_faster_ppm = slipped_ppm + held_ppm;
        const auto [fewer, more] = std::minmax(in_.underruns, in_.overruns);
        const bool like_a_clock = 10 * fewer <= more && std::abs(slipped_ppm) < most_ppm_of_a_clock;
        const bool off_target =
            std::abs(in_.mean_error_frames) > least_blocks_off * in_.last.stream_block_frames;
        if (std::abs(server_faster_ppm) > least_ppm_told && like_a_clock &&
            (slips() > 0 || off_target)) {
            const bool slow = server_faster_ppm > 0;
            tell(slow ? Cause::device_too_slow : Cause::device_too_fast,
                 static_cast<double>(slips()),
                 text("the device's clock is %s by about %.0f ppm against the server's; %s",
                      slow ? "slow" : "fast", std::abs(server_faster_ppm),
                      slips() == 0 ? "the buffer holds it" : drop_outs(in_).c_str()));
        } else if (slips() > 0) {
            const double swing = static_cast<double>(in_.last.max_frames) - in_.last.min_frames;
            const double needed =
                std::max(std::ceil(swing / in_.last.stream_block_frames) + spare_blocks,
                         in_.latency_blocks() + spare_blocks);
            tell(Cause::buffer_too_small, static_cast<double>(slips()),
                 text("the device's periods come unevenly (%s) while the network is punctual; "
                      "client_latency_blocks is %.0f, try %.0f",
                      drop_outs(in_).c_str(), in_.latency_blocks(), needed));
        }
    }

    double from_s_;
    double until_s_;
    Interval in_;
    Spread spread_;
    std::vector<Finding> findings_;
};

/// Without the readings of an engine that had died or hung already.
std::span<const Sample> until_the_last_word(std::span<const Sample> samples) {
    if (samples.back().presence != Presence::silent) return samples;
    while (samples.size() > 1 && samples[samples.size() - 2].stats &&
           is_same(*samples[samples.size() - 2].stats, *samples.back().stats))
        samples = samples.first(samples.size() - 1);
    return samples;
}

/// Neighbours of one cause become one.
void merge(std::vector<Finding>& all, std::vector<Finding> more) {
    constexpr double neighbourhood_s = piece_s;
    for (Finding& finding : more) {
        const auto earlier = std::ranges::find_if(all, [&](const Finding& known) {
            return known.cause == finding.cause && finding.from_s - known.until_s < neighbourhood_s;
        });
        if (earlier == all.end()) {
            all.push_back(std::move(finding));
            continue;
        }
        earlier->until_s = finding.until_s;
        if (finding.weight > earlier->weight) {
            earlier->weight = finding.weight;
            earlier->text = std::move(finding.text);
        }
    }
}

void judge_presence(std::span<const Sample> samples, std::vector<Finding>& findings) {
    const Sample& last = samples.back();
    const double at = seconds_between(samples.front(), last);
    const auto tell = [&](Cause cause, std::string what) {
        findings.push_back({cause, at, at, 1, std::move(what)});
    };
    if (last.presence == Presence::absent) {
        tell(Cause::engine_absent, "no engine with this client_id");
    } else if (last.presence == Presence::silent) {
        tell(Cause::engine_silent,
             "the engine's block is there, but nobody writes it: its process died or hangs");
    } else if (last.presence == Presence::ended && last.stats->state == TAVISTRO_STATE_FAILED) {
        tell(Cause::engine_failed, std::string(host::error_text(last.stats->error_code)));
    } else if (last.presence == Presence::ended) {
        tell(Cause::engine_ended, "the run was stopped");
    }
}

}  // namespace

std::string_view cause_text(Cause cause) {
    return std::ranges::find(cause_names, cause, [](const auto& name) { return name.first; })
        ->second;
}

std::vector<Finding> diagnose(std::span<const Sample> samples) {
    std::vector<Finding> findings;
    if (samples.empty()) return findings;
    const std::vector<Step> steps = steps_of(until_the_last_word(samples));
    for (std::span<const Step> rest(steps); !rest.empty();) {
        const double end_s = rest.front().from_s + piece_s;
        const auto end = std::ranges::find_if(rest, [&](const Step& step) {
            return step.from_s >= end_s || !step.same_format(rest.front());
        });
        const auto count = static_cast<std::size_t>(end - rest.begin());
        merge(findings, Judgement(rest.first(count)).take());
        rest = rest.subspan(count);
    }
    judge_presence(samples, findings);
    std::ranges::stable_sort(findings, {}, &Finding::cause);
    return findings;
}

}  // namespace tavistro::monitor
