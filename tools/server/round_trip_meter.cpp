#include "tools/server/round_trip_meter.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <cmath>
#include <utility>

namespace tavistro::server {

namespace {

constexpr std::size_t max_lag_blocks = 300;
constexpr std::size_t max_lag_seconds = 2;
/// The first search runs on averages of this many frames, the second around its best lags.
constexpr std::size_t decimation = 8;
constexpr std::size_t fine_reach = 2 * decimation;
/// Averages between two lags can make a shift by one period of a note look better than the truth:
/// the best few are looked at closely.
constexpr std::size_t candidate_count = 4;
/// A known lag is looked for nearby first; below this it is searched from scratch.
constexpr double trusted_correlation = 0.9;
constexpr double least_correlation = 0.3;
/// A resampler at work moves the lag by some frames a second: likeness is judged in shorter pieces.
constexpr std::size_t likeness_pieces = 16;
/// Less than this is silence and the rounding of sums.
constexpr double least_energy = 1e-9;

bool is_silent(std::span<const float> samples) {
    return std::all_of(samples.begin(), samples.end(), [](float s) { return s == 0.0F; });
}

bool bit_equal(std::span<const float> a, std::span<const float> b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](float x, float y) {
        return std::bit_cast<std::uint32_t>(x) == std::bit_cast<std::uint32_t>(y);
    });
}

double squared(float sample) {
    return static_cast<double>(sample) * static_cast<double>(sample);
}

double energy(std::span<const float> samples) {
    double sum = 0;
    for (const float s : samples)
        sum += squared(s);
    return sum;
}

double product(std::span<const float> a, std::span<const float> b) {
    double sum = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        sum += static_cast<double>(a[i]) * static_cast<double>(b[i]);
    }
    return sum;
}

/// 0 when either side is silent.
double correlation(std::span<const float> a, std::span<const float> b) {
    const double norm = std::sqrt(energy(a) * energy(b));
    return norm > 0 ? product(a, b) / norm : 0.0;
}

std::vector<float> averages(std::span<const float> samples) {
    std::vector<float> means(samples.size() / decimation);
    for (std::size_t i = 0; i < means.size(); ++i) {
        float sum = 0;
        for (const float s : samples.subspan(i * decimation, decimation))
            sum += s;
        means[i] = sum / decimation;
    }
    return means;
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
    std::sort(sorted.begin(), sorted.end());
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
    // Where the sound begins within the window, what is missing before is no loss of likeness.
    const bool begins = !std::exchange(heard_, true) && counts.silent > 0;
    if (begins) return;
    correlations_.push_back(likeness(*lag));
    ++totals_.windows;
}

std::optional<std::size_t> RoundTripMeter::find_lag() const {
    if (is_silent(returned_)) return {};
    if (known_lag_) {
        const std::size_t first = *known_lag_ - std::min(*known_lag_, fine_reach);
        const std::size_t nearby = best_lag_between(first, *known_lag_ + fine_reach);
        if (correlation_at(nearby) >= trusted_correlation) return nearby;
    }
    std::optional<std::size_t> best;
    double best_correlation = least_correlation;
    for (const std::size_t candidate : coarse_lags()) {
        const std::size_t lag =
            best_lag_between(candidate - std::min(candidate, fine_reach), candidate + fine_reach);
        const double at_lag = correlation_at(lag);
        if (at_lag <= best_correlation) continue;
        best_correlation = at_lag;
        best = lag;
    }
    return best;
}

std::vector<std::size_t> RoundTripMeter::coarse_lags() const {
    // The window must begin on a border of the averages on both sides.
    const std::vector<float> sent = averages(std::span(sent_).subspan(max_lag_ % decimation));
    const std::vector<float> returned = averages(returned_);
    const std::size_t lags = max_lag_ / decimation;
    // The returned side's energy is the same for every lag, so the scores leave it out; the sent
    // side's follows the window as it slides back. Lag i stands at i + 1, between two borders.
    std::vector<double> scores(lags + 3, 0.0);
    double sent_energy = energy(std::span(sent).subspan(lags, returned.size()));
    for (std::size_t lag = 0; lag <= lags; ++lag) {
        const std::size_t start = lags - lag;
        if (lag > 0) sent_energy += squared(sent[start]) - squared(sent[start + returned.size()]);
        if (sent_energy < least_energy) continue;
        const auto window = std::span<const float>(sent).subspan(start, returned.size());
        scores[lag + 1] = product(returned, window) / std::sqrt(sent_energy);
    }
    std::vector<std::size_t> peaks;
    for (std::size_t i = 1; i <= lags + 1; ++i) {
        if (scores[i] > scores[i - 1] && scores[i] >= scores[i + 1]) peaks.push_back(i);
    }
    const std::size_t count = std::min(peaks.size(), candidate_count);
    std::partial_sort(peaks.begin(), peaks.begin() + static_cast<std::ptrdiff_t>(count),
                      peaks.end(),
                      [&](std::size_t a, std::size_t b) { return scores[a] > scores[b]; });
    peaks.resize(count);
    for (std::size_t& peak : peaks)
        peak = (peak - 1) * decimation;
    return peaks;
}

std::size_t RoundTripMeter::best_lag_between(std::size_t first, std::size_t last) const {
    std::size_t best = first;
    double best_correlation = -2;
    for (std::size_t lag = first; lag <= std::min(last, max_lag_); ++lag) {
        const double at_lag = correlation_at(lag);
        if (at_lag <= best_correlation) continue;
        best_correlation = at_lag;
        best = lag;
    }
    return best;
}

double RoundTripMeter::correlation_at(std::size_t lag) const {
    return correlation_at(lag, 0, window_);
}

double RoundTripMeter::correlation_at(std::size_t lag, std::size_t start, std::size_t count) const {
    return correlation(std::span(returned_).subspan(start, count),
                       std::span(sent_).subspan(max_lag_ - lag + start, count));
}

double RoundTripMeter::likeness(std::size_t lag) const {
    const std::size_t count = window_ / likeness_pieces;
    double weights = 0;
    double sum = 0;
    for (std::size_t start = 0; start + count <= window_; start += count) {
        const double weight = energy(std::span(returned_).subspan(start, count));
        weights += weight;
        if (weight > 0) sum += weight * peak_correlation(lag, start, count);
    }
    return weights > 0 ? sum / weights : 0.0;
}

double RoundTripMeter::peak_correlation(std::size_t lag, std::size_t start,
                                        std::size_t count) const {
    const std::size_t first = lag - std::min(lag, fine_reach);
    const std::size_t last = std::min(lag + fine_reach, max_lag_);
    std::vector<double> scores;
    for (std::size_t at = first; at <= last; ++at)
        scores.push_back(correlation_at(at, start, count));
    const auto best = std::max_element(scores.begin(), scores.end());
    if (best == scores.begin() || best + 1 == scores.end()) return *best;
    const double before = *(best - 1);
    const double after = *(best + 1);
    const double curvature = before - 2 * *best + after;
    if (!(curvature < 0)) return *best;
    return std::min(1.0, *best - (before - after) * (before - after) / (8 * curvature));
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
