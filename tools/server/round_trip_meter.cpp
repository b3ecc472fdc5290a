#include "tools/server/round_trip_meter.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <cmath>
#include <utility>

#include "tools/server/correlation.h"

namespace tavistro::server {

namespace {

constexpr std::size_t max_lag_blocks = 300;
constexpr std::size_t max_lag_seconds = 2;
constexpr double least_correlation = 0.3;
/// Lags whose correlations differ by less count as equally good. A steady tone has many such lags.
constexpr double equal_correlation = 1e-9;
/// Resampling moves the lag by some frames per second. Similarity is therefore measured in shorter
/// pieces, each at its best lag within this distance.
constexpr std::size_t similarity_pieces = 16;
constexpr std::size_t similarity_reach_frames = 16;

bool is_silent(std::span<const float> samples) {
    return std::ranges::all_of(samples, [](float sample) { return sample == 0.0F; });
}

bool bit_equal(std::span<const float> a, std::span<const float> b) {
    return std::ranges::equal(a, b, [](float x, float y) {
        return std::bit_cast<std::uint32_t>(x) == std::bit_cast<std::uint32_t>(y);
    });
}

/// The interpolated maximum: the vertex of the parabola through the largest value and its two
/// neighbours.
double peak(std::span<const double> values) {
    const auto best = std::ranges::max_element(values);
    if (best == values.begin() || best + 1 == values.end()) return *best;
    const double before = *(best - 1);
    const double after = *(best + 1);
    const double curvature = before - 2 * *best + after;
    if (!(curvature < 0)) return *best;
    return std::min(1.0, *best - (before - after) * (before - after) / (8 * curvature));
}

}  // namespace

RoundTripMeter::RoundTripMeter(const StreamFormat& format) {
    change_format(format);
}

void RoundTripMeter::change_format(const StreamFormat& format) {
    format_ = format;
    const std::size_t frames = format.frames;
    const std::size_t blocks_per_second = format.sample_rate / frames;
    window_ = std::max<std::size_t>(blocks_per_second, 1) * frames;
    max_lag_ = std::min(max_lag_blocks * frames, max_lag_seconds * format.sample_rate);
    restart();
}

void RoundTripMeter::restart() {
    sent_.assign(max_lag_, 0.0F);
    returned_.clear();
    known_lag_.reset();
}

bool RoundTripMeter::feed(std::span<const float> sent, std::span<const float> returned) {
    assert(sent.size() == format_.frames && returned.size() == format_.frames);
    sent_.insert(sent_.end(), sent.begin(), sent.end());
    returned_.insert(returned_.end(), returned.begin(), returned.end());
    if (returned_.size() < window_) return false;
    measure();
    sent_.erase(sent_.begin(), sent_.end() - static_cast<std::ptrdiff_t>(max_lag_));
    returned_.clear();
    return true;
}

RoundTripReport RoundTripMeter::report() const {
    RoundTripReport report = totals_;
    if (correlations_.empty()) return report;
    std::vector<double> sorted = correlations_;
    std::ranges::sort(sorted);
    report.windows = sorted.size();
    report.correlation_min = sorted.front();
    report.correlation_median = sorted[sorted.size() / 2];
    report.correlation_max = sorted.back();
    return report;
}

void RoundTripMeter::measure() {
    const std::optional<std::size_t> lag = find_lag();
    const BlockCounts counts = compare_blocks(lag.value_or(known_lag_.value_or(0)));
    totals_.silent_blocks += counts.silent;
    if (!lag) return;
    known_lag_ = totals_.last_lag_frames = lag;
    totals_.exact_blocks += counts.exact;
    totals_.compared_blocks += counts.compared;
    // Skip the window in which the returned signal begins: its silent start would lower the result.
    const bool begins = !std::exchange(heard_, true) && counts.silent > 0;
    if (!begins) correlations_.push_back(similarity(*lag));
}

std::optional<std::size_t> RoundTripMeter::find_lag() const {
    if (is_silent(returned_)) return {};
    std::vector<double> by_lag = correlation(returned_, sent_);
    std::ranges::reverse(by_lag);  // the last segment has lag 0
    const double best = *std::ranges::max_element(by_lag);
    if (best < least_correlation) return {};
    const auto is_best = [&](double value) { return value > best - equal_correlation; };
    if (known_lag_ && is_best(by_lag[*known_lag_])) return known_lag_;
    return static_cast<std::size_t>(std::ranges::find_if(by_lag, is_best) - by_lag.begin());
}

double RoundTripMeter::similarity(std::size_t lag) const {
    const std::size_t count = window_ / similarity_pieces;
    const std::size_t longest = std::min(lag + similarity_reach_frames, max_lag_);
    const std::size_t shortest = lag - std::min(lag, similarity_reach_frames);
    double weights = 0;
    double sum = 0;
    for (std::size_t start = 0; start + count <= window_; start += count) {
        const auto piece = std::span(returned_).subspan(start, count);
        const double weight = energy(piece);
        const auto nearby =
            std::span(sent_).subspan(max_lag_ + start - longest, count + longest - shortest);
        weights += weight;
        sum += weight * peak(correlation(piece, nearby));
    }
    return weights > 0 ? sum / weights : 0.0;
}

RoundTripMeter::BlockCounts RoundTripMeter::compare_blocks(std::size_t lag) const {
    const std::span<const float> sent = std::span(sent_).subspan(max_lag_ - lag, window_);
    BlockCounts counts;
    for (std::size_t start = 0; start < window_; start += format_.frames) {
        const auto sent_block = sent.subspan(start, format_.frames);
        const auto returned_block = std::span(returned_).subspan(start, format_.frames);
        const bool nothing_sent = is_silent(sent_block);
        if (is_silent(returned_block)) {
            counts.silent += nothing_sent ? 0U : 1U;
        } else if (!nothing_sent) {
            ++counts.compared;
            counts.exact += bit_equal(sent_block, returned_block) ? 1U : 0U;
        }
    }
    return counts;
}

}  // namespace tavistro::server
