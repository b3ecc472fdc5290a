#include "tools/monitor/view.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <numeric>
#include <utility>

#include "tavistro/engine.h"
#include "tools/readings/read_speed.h"
#include "tools/readings/texts.h"

namespace tavistro::monitor {

namespace {

double ms(double microseconds) {
    return microseconds / 1000.0;
}

/// `numbers` stand between the client and its state.
std::string presence_line(const Sample& sample, const std::string& numbers = {}) {
    const std::string who = fmt::format("client {}   {}", sample.client_id, numbers);
    if (!sample.stats) return who + "no engine with this client_id; waiting";
    const tavistro_stats_block& s = *sample.stats;
    if (sample.presence == Presence::ended && s.error_code == TAVISTRO_ERROR_NONE)
        return who + "engine stopped, last values";
    if (sample.presence == Presence::ended)
        return fmt::format("{}engine stopped, last values: {}", who,
                           readings::error_text(s.error_code));
    if (sample.presence == Presence::silent)
        return fmt::format("{}NO REPORTS: it died or hangs; last state {}", who,
                           readings::state_text(s.state));
    std::string line = fmt::format("{}{}", who, readings::state_text(s.state));
    if (s.stream_sample_rate > 0)
        line += fmt::format("   {} Hz, {} frames", s.stream_sample_rate, s.stream_block_frames);
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
    return fmt::format("buffer   [{}] {} of {} frames, {:.1f} ms", bar, s.playback_buffer_frames,
                       s.target_frames, ms(s.buffer_us));
}

/// One column of a table of times.
std::string cell(std::uint32_t microseconds) {
    return fmt::format(" {:>9.2f}", ms(microseconds));
}

/// Percentiles are upper bounds of buckets.
std::string delay_line(const char* name, std::uint32_t last, std::uint32_t min, std::uint32_t p50,
                       std::uint32_t p95, std::uint32_t p99, std::uint32_t max) {
    std::string line = fmt::format("{:<18}", name) + cell(last) + cell(min);
    for (const std::uint32_t bound : {p50, p95, p99})
        line += cell(std::min(bound, max));
    return line + cell(max);
}

std::string delay_line(const char* name, std::uint32_t last, std::uint32_t max) {
    return fmt::format("{:<18}{}{:>40}{}", name, cell(last), "", cell(max));
}

std::string histogram_line(const char* name, const std::uint32_t (&counts)[10]) {
    const double sum = std::accumulate(std::begin(counts), std::end(counts), 0.0);
    std::string line = fmt::format("{:<18}", name);
    for (const std::uint32_t count : counts) {
        const double percent = 100 * count / sum;
        line += count == 0       ? "     -"
                : percent < 0.05 ? "  <0.1"
                                 : fmt::format(" {:5.1f}", percent);
    }
    return line;
}

/// The server's clock against the device's, as measured.
std::string clocks_text(const Sample& sample) {
    const Totals& totals = sample.totals;
    if (totals.clock_uncertainty_ppm > 0)
        return fmt::format("server's clock {:+.0f} ppm (+-{:.0f}) to the device's",
                           totals.server_faster_ppm, std::ceil(totals.clock_uncertainty_ppm));
    return sample.stats->clock_synced != 0 ? "server's clock not measured yet"
                                           : "server's clock not measured yet, offset unknown";
}

std::string losses_line(const tavistro_stats_block& s, const tavistro_stats_block& before) {
    std::string line = "losses ";
    for (const auto& [name, count] : {std::pair{"underruns", &tavistro_stats_block::underruns},
                                      {"overruns", &tavistro_stats_block::overruns},
                                      {"playback", &tavistro_stats_block::playback_dropped},
                                      {"capture", &tavistro_stats_block::capture_dropped}}) {
        line += fmt::format("  {} {}", name, s.*count);
        if (s.*count > before.*count) line += fmt::format(" (+{})", s.*count - before.*count);
    }
    return line;
}

/// Breaks a sentence at spaces, where there is room for that; lines after the first are indented.
void add_wrapped(std::vector<std::string>& lines, std::string rest, std::size_t width) {
    constexpr std::size_t indent = 9;
    while (rest.size() > width && width > 2 * indent) {
        std::size_t end = rest.rfind(' ', width);
        if (end == std::string::npos || end <= indent) end = width;
        lines.push_back(rest.substr(0, end));
        rest = std::string(indent, ' ') + rest.substr(std::min(rest.size(), end + 1));
    }
    lines.push_back(rest.substr(0, width));
}

std::vector<std::string> cut(std::vector<std::string> lines, std::size_t width) {
    for (std::string& line : lines)
        line.resize(std::min(line.size(), width));
    return lines;
}

std::vector<std::string> number_lines(const Sample& now, const tavistro_stats_block& before) {
    const tavistro_stats_block& s = *now.stats;
    return {
        buffer_line(s),
        fmt::format("         lowest {}, highest {} frames in the last second", s.min_frames,
                    s.max_frames),
        fmt::format("speed    buffer read {:+.0f} ppm, {}", readings::read_speed_ppm(s),
                    clocks_text(now)),
        fmt::format("blocks/s received {}  duplicate {}  queued {}  played {}  periods/s {}",
                    s.client_recv_blocks_per_sec, s.client_duplicate_blocks_per_sec,
                    s.player_recv_blocks_per_sec, s.dequeued_per_sec, s.callbacks_per_sec),
        losses_line(s, before),
        "time in ms              last       min    median      95 %      99 %       max",
        delay_line("round trip", s.rtt_last_us, s.rtt_min_us, s.rtt_p50_us, s.rtt_p95_us,
                   s.rtt_p99_us, s.rtt_max_us),
        delay_line("sync notice", s.sync_delay_last_us, s.sync_delay_min_us, s.sync_delay_p50_us,
                   s.sync_delay_p95_us, s.sync_delay_p99_us, s.sync_delay_max_us),
        delay_line("server to output", s.server_to_output_last_us, s.server_to_output_max_us),
        delay_line("playback queue", s.queue_latency_last_us, s.queue_latency_max_us),
        delay_line("work of a period", s.callback_duration_last_us, s.callback_duration_max_us),
        delay_line("block delivery", s.block_callback_last_us, s.block_callback_max_us),
    };
}

}  // namespace

std::vector<std::string> view(std::span<const Sample> history, std::size_t width) {
    const Sample& now = history.back();
    std::vector<std::string> lines{presence_line(now)};
    if (now.stats) {
        const Sample& before = history[history.size() > 1 ? history.size() - 2 : 0];
        std::ranges::move(number_lines(now, before.stats.value_or(*now.stats)),
                          std::back_inserter(lines));
    }
    return cut(std::move(lines), width);
}

std::vector<std::string> histogram_view(const Sample& sample, std::size_t width) {
    if (!sample.stats) return {};
    return cut({"% up to ...  ms     0.25   0.5     1     2     5    10    20    50   100  more",
                histogram_line("round trip", sample.stats->rtt_histogram),
                histogram_line("sync notice", sample.stats->sync_delay_histogram)},
               width);
}

std::vector<std::string> account_view(Account account, std::size_t width) {
    const auto of_presence = std::erase_if(account.causes, [](const Finding& finding) {
        return finding.cause <= Cause::engine_failed;
    });
    const bool has_verdict = of_presence == 0 && account.watched_s >= least_watched_s;
    std::vector<std::string> lines;
    for (std::string& line : has_verdict ? tell(account) : account_lines(account))
        add_wrapped(lines, std::move(line), width);
    return lines;
}

std::string short_view(const Sample& sample, std::size_t width) {
    std::string numbers;
    if (sample.stats) {
        const tavistro_stats_block& s = *sample.stats;
        const std::uint64_t dropped = std::uint64_t{s.playback_dropped} + s.capture_dropped;
        numbers = fmt::format("underruns {}  overruns {}  dropped {}  buffer {}/{}  ", s.underruns,
                              s.overruns, dropped, s.playback_buffer_frames, s.target_frames);
    }
    return presence_line(sample, numbers).substr(0, width);
}

}  // namespace tavistro::monitor
