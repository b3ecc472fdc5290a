#include "audio/drift_estimator.h"

#include <bit>

#include "common/drift_law.h"

namespace tavistro {

void DriftEstimator::reset() noexcept {
    store_ratio(1.0);
    sync_count_.store(0, std::memory_order_relaxed);
    server_frames_.store(0, std::memory_order_relaxed);
    local_frames_.store(0, std::memory_order_relaxed);
    has_previous_ = false;
    previous_ = {};
    last_sync_count_ = 0;
}

void DriftEstimator::on_sync(std::uint64_t server_frame_position) noexcept {
    server_frames_.store(server_frame_position, std::memory_order_relaxed);
    sync_count_.fetch_add(1, std::memory_order_release);
}

void DriftEstimator::update_drift() noexcept {
    const std::uint64_t count = sync_count_.load(std::memory_order_acquire);
    if (count == 0 || count == last_sync_count_) return;

    const Sample now{server_frames_.load(std::memory_order_relaxed),
                     local_frames_.load(std::memory_order_relaxed)};
    if (has_previous_ && now.server_frames > previous_.server_frames &&
        now.local_frames > previous_.local_frames) {
        const double measured = static_cast<double>(now.server_frames - previous_.server_frames) /
                                static_cast<double>(now.local_frames - previous_.local_frames);
        store_ratio(followed_clock_ratio(pll_ratio(), measured));
    }
    previous_ = now;
    has_previous_ = true;
    last_sync_count_ = count;
}

double DriftEstimator::pll_ratio() const noexcept {
    return std::bit_cast<double>(pll_ratio_bits_.load(std::memory_order_relaxed));
}

double DriftEstimator::capture_ratio() const noexcept {
    const double ratio = pll_ratio();
    return ratio > 0.0 ? 1.0 / ratio : 1.0;
}

void DriftEstimator::store_ratio(double ratio) noexcept {
    pll_ratio_bits_.store(std::bit_cast<std::uint64_t>(ratio), std::memory_order_relaxed);
}

}  // namespace tavistro
