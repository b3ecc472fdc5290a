#include "tools/monitor/history.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <optional>
#include <utility>

namespace tavistro::monitor {

namespace {

struct Tier {
    std::int64_t width_ms;  ///< 0: readings are not merged
    std::size_t most;
};
constexpr std::array<Tier, 3> tiers{{{0, 600}, {10'000, 360}, {60'000, 1440}}};

bool can_merge(const Sample& a, const Sample& b) {
    if (a.presence != b.presence || a.stats.has_value() != b.stats.has_value()) return false;
    return !a.stats || (a.totals.run == b.totals.run && a.stats->state == b.stats->state &&
                        a.stats->error_code == b.stats->error_code);
}

/// `later`, with the extremes of both.
Sample merged(const Sample& earlier, Sample later) {
    later.host_late_us = std::max(earlier.host_late_us, later.host_late_us);
    if (!later.stats) return later;
    const tavistro_stats_block& before = *earlier.stats;
    tavistro_stats_block& stats = *later.stats;
    stats.min_frames = std::min(before.min_frames, stats.min_frames);
    for (const auto field :
         {&tavistro_stats_block::max_frames, &tavistro_stats_block::rtt_last_us,
          &tavistro_stats_block::queue_latency_last_us, &tavistro_stats_block::sync_delay_last_us,
          &tavistro_stats_block::server_to_output_last_us,
          &tavistro_stats_block::callback_duration_last_us,
          &tavistro_stats_block::block_callback_last_us})
        stats.*field = std::max(before.*field, stats.*field);
    return later;
}

template <typename Samples>
void append(Samples& to, const Sample& sample, std::int64_t width_ms) {
    if (width_ms > 0 && !to.empty() && to.back().time_ms / width_ms == sample.time_ms / width_ms &&
        can_merge(to.back(), sample)) {
        to.back() = merged(to.back(), sample);
    } else {
        to.push_back(sample);
    }
}

void append_later(const std::deque<Sample>& from, std::int64_t time_ms, std::vector<Sample>& to) {
    std::ranges::copy_if(from, std::back_inserter(to),
                         [&](const Sample& sample) { return sample.time_ms > time_ms; });
}

}  // namespace

std::vector<Sample> thinned(std::span<const Sample> samples, std::int64_t width_ms) {
    std::map<std::uint32_t, std::vector<Sample>> clients;
    for (const Sample& sample : samples)
        append(clients[sample.client_id], sample, width_ms);
    std::vector<Sample> fewer;
    for (const auto& [id, history] : clients)
        std::ranges::copy(history, std::back_inserter(fewer));
    return fewer;
}

void History::add(const Sample& sample) {
    std::optional<Sample> next = sample;
    for (std::size_t i = 0; i < tiers.size() && next; ++i) {
        append(tiers_[i], *std::exchange(next, {}), tiers[i].width_ms);
        if (tiers_[i].size() <= tiers[i].most) continue;
        next = tiers_[i].front();
        tiers_[i].pop_front();
    }
}

std::vector<Sample> History::recent(std::int64_t time_ms) const {
    std::vector<Sample> samples;
    append_later(tiers_[0], time_ms, samples);
    return samples;
}

std::vector<Sample> History::after(std::int64_t time_ms) const {
    std::vector<Sample> samples;
    for (auto tier = tiers_.rbegin(); tier != tiers_.rend(); ++tier)
        append_later(*tier, time_ms, samples);
    return samples;
}

}  // namespace tavistro::monitor
