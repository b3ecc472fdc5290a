#include "tools/monitor/view.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "tavistro/engine.h"
#include "tools/readings/read_speed.h"
#include "tools/readings/texts.h"

namespace tavistro::monitor {

namespace {

template <typename... Values>
std::string text(const char* format, Values... values) {
    char buffer[200];
    std::snprintf(buffer, sizeof buffer, format, values...);
    return buffer;
}

double ms(double microseconds) {
    return microseconds / 1000.0;
}

/// `numbers` stand between the client and its state.
std::string presence_line(const Sample& sample, const std::string& numbers = {}) {
    const std::string who = "client " + std::to_string(sample.client_id) + "   " + numbers;
    if (!sample.stats) return who + "no engine with this client_id; waiting for a start";
    const tavistro_stats_block& s = *sample.stats;
    std::string line = who;
    if (sample.presence == Presence::ended) {
        line += "engine stopped, last values";
        if (s.error_code != TAVISTRO_ERROR_NONE)
            line.append(": ").append(readings::error_text(s.error_code));
        return line;
    }
    line += readings::state_text(s.state);
    if (s.stream_sample_rate > 0)
        line += text("   %u Hz, %u frames", s.stream_sample_rate, s.stream_block_frames);
    if (sample.presence == Presence::silent) line += "   NOBODY WRITES: dead or hanging";
    return line;
}

/// Fill as a bar over twice the target, whose place is marked.
std::string buffer_line(const tavistro_stats_block& s) {
    constexpr std::size_t cells = 32;
    std::string bar(cells, '.');
    if (s.target_frames > 0) {
        const double cell = 2.0 * s.target_frames / cells;
        const auto filled = static_cast<std::size_t>(s.playback_buffer_frames / cell);
        std::fill_n(bar.begin(), std::min(filled, cells), '#');
        bar[cells / 2] = '|';
    }
    return text("buffer   [%s] %u/%u frames %.1f ms", bar.c_str(), s.playback_buffer_frames,
                s.target_frames, ms(s.buffer_us));
}

/// Percentiles are upper bounds of buckets.
std::string delay_line(const char* name, std::uint32_t last, std::uint32_t min, std::uint32_t p50,
                       std::uint32_t p95, std::uint32_t p99, std::uint32_t max) {
    const auto at_most = [max](std::uint32_t bound) { return ms(std::min(bound, max)); };
    return text("%-8s last %.2f  min %.2f  p50 %.2f  p95 %.2f  p99 %.2f  max %.2f ms", name,
                ms(last), ms(min), at_most(p50), at_most(p95), at_most(p99), ms(max));
}

constexpr const char* bucket_heading =
    "  up to ms  0.25   0.5     1     2     5    10    20    50   100  more";

std::string histogram_line(const char* name, const std::uint32_t (&counts)[10]) {
    std::uint64_t sum = 0;
    for (const std::uint32_t count : counts)
        sum += count;
    std::string line = text("  %-7s", name);
    for (const std::uint32_t count : counts) {
        const double percent = sum == 0 ? 0 : 100.0 * count / static_cast<double>(sum);
        if (count == 0) {
            line += "     -";
        } else {
            line += percent < 0.05 ? "  <0.1" : text(" %5.1f", percent);
        }
    }
    return line + " %";
}

/// The server's clock against the device's, as measured.
std::string clocks_text(const Sample& sample) {
    const Totals& totals = sample.totals;
    if (totals.clock_uncertainty_ppm > 0)
        return text("clocks: server %+.0f ppm +-%.0f against the device", totals.server_faster_ppm,
                    std::ceil(totals.clock_uncertainty_ppm));
    return sample.stats->clock_synced != 0 ? "clocks: measured soon"
                                           : "clocks: measured soon (offset not known yet)";
}

std::string drops_line(const tavistro_stats_block& s, const tavistro_stats_block* before) {
    const auto one = [&](const char* name, std::uint32_t tavistro_stats_block::*count) {
        std::string item = text("%s %u", name, s.*count);
        if (before != nullptr && s.*count > before->*count)
            item += text(" (+%u)", s.*count - before->*count);
        return item;
    };
    return "drops    " + one("underruns", &tavistro_stats_block::underruns) + "  " +
           one("overruns", &tavistro_stats_block::overruns) + "  " +
           one("playback", &tavistro_stats_block::playback_dropped) + "  " +
           one("capture", &tavistro_stats_block::capture_dropped);
}

void cut(std::string& line, std::size_t width) {
    if (line.size() > width) line.resize(width);
}

/// Breaks a sentence at spaces; lines after the first are indented.
void add_wrapped(std::vector<std::string>& lines, std::string rest, std::size_t width) {
    constexpr std::size_t indent = 9;
    while (rest.size() > width && width > 2 * indent) {
        std::size_t end = rest.rfind(' ', width);
        if (end == std::string::npos || end <= indent) end = width;
        lines.push_back(rest.substr(0, end));
        rest = std::string(indent, ' ') + rest.substr(std::min(rest.size(), end + 1));
    }
    lines.push_back(std::move(rest));
}

void add_numbers(std::vector<std::string>& lines, const Sample& now,
                 const tavistro_stats_block* before) {
    const tavistro_stats_block& s = *now.stats;
    lines.push_back(buffer_line(s));
    lines.push_back(
        text("         lowest %u, highest %u in the last second", s.min_frames, s.max_frames));
    lines.push_back(text("speed    buffer read %+.0f ppm, ", readings::read_speed_ppm(s)) +
                    clocks_text(now));
    lines.push_back(text("a second received %u (again %u)  queued %u  periods %u  rendered %u",
                         s.client_recv_blocks_per_sec, s.client_duplicate_blocks_per_sec,
                         s.player_recv_blocks_per_sec, s.callbacks_per_sec, s.dequeued_per_sec));
    lines.push_back(drops_line(s, before));
    lines.push_back(delay_line("rtt", s.rtt_last_us, s.rtt_min_us, s.rtt_p50_us, s.rtt_p95_us,
                               s.rtt_p99_us, s.rtt_max_us));
    lines.push_back(delay_line("sync", s.sync_delay_last_us, s.sync_delay_min_us,
                               s.sync_delay_p50_us, s.sync_delay_p95_us, s.sync_delay_p99_us,
                               s.sync_delay_max_us));
    lines.emplace_back(bucket_heading);
    lines.push_back(histogram_line("rtt", s.rtt_histogram));
    lines.push_back(histogram_line("sync", s.sync_delay_histogram));
    lines.push_back(
        text("way      server to output %.1f ms (max %.1f), in the queue %.1f (max %.1f)",
             ms(s.server_to_output_last_us), ms(s.server_to_output_max_us),
             ms(s.queue_latency_last_us), ms(s.queue_latency_max_us)));
    lines.push_back(text("work     period %.2f ms (max %.2f), delivery %.2f ms (max %.2f)",
                         ms(s.callback_duration_last_us), ms(s.callback_duration_max_us),
                         ms(s.block_callback_last_us), ms(s.block_callback_max_us)));
}

}  // namespace

std::vector<std::string> view(std::span<const Sample> history, std::size_t width) {
    const Sample& now = history.back();
    std::vector<std::string> lines{presence_line(now)};
    if (now.stats) {
        const Sample* const earlier = history.size() > 1 ? &history[history.size() - 2] : nullptr;
        add_numbers(lines, now, earlier != nullptr && earlier->stats ? &*earlier->stats : nullptr);
    }
    for (std::string& line : lines)
        cut(line, width);
    return lines;
}

std::vector<std::string> account_view(Account account, std::size_t width) {
    const bool judged = !account.nothing_wrong() || account.watched_s >= least_watched_s;
    const auto of_presence = std::erase_if(account.causes, [](const Finding& finding) {
        return finding.cause <= Cause::engine_failed;
    });
    const bool has_verdict = judged && (of_presence == 0 || !account.nothing_wrong());
    std::vector<std::string> lines;
    for (std::string& line : has_verdict ? tell(account) : account_lines(account))
        add_wrapped(lines, std::move(line), width);
    for (std::string& line : lines)
        cut(line, width);
    return lines;
}

std::vector<std::string> tell(const Account& account) {
    std::vector<std::string> lines = account_lines(account);
    if (!account.nothing_wrong()) return lines;
    const auto watched_s = static_cast<long long>(account.watched_s);
    lines.push_back(account.watched_s < least_watched_s
                        ? "too short a time to judge"
                        : text("nothing wrong in %lld:%02lld", watched_s / 60, watched_s % 60));
    return lines;
}

std::string short_view(const Sample& sample, std::size_t width) {
    std::string line;
    if (sample.stats) {
        const tavistro_stats_block& s = *sample.stats;
        line =
            text("drops %u+%u+%u+%u  buffer %u/%u  ", s.underruns, s.overruns, s.playback_dropped,
                 s.capture_dropped, s.playback_buffer_frames, s.target_frames);
    }
    line = presence_line(sample, line);
    cut(line, width);
    return line;
}

}  // namespace tavistro::monitor
