#include "tools/server/skewed_clock.h"

#include <algorithm>
#include <cmath>

namespace tavistro::server {

namespace {

constexpr std::int64_t ns_per_ms = 1'000'000;
constexpr std::int64_t earliest_ns = 1'000'000'000;

/// `span_ns` * factor, rounded to nanoseconds. With factors near 0, double precision is exact to
/// the nanosecond for spans of weeks.
std::int64_t scaled(std::int64_t span_ns, double factor) noexcept {
    return std::llround(static_cast<double>(span_ns) * factor);
}

}  // namespace

SkewedClock::SkewedClock(std::uint64_t local_ns, std::int64_t offset_ms, double drift_ppm) noexcept
    : offset_ms_(offset_ms), drift_ppm_(drift_ppm) {
    anchor(local_ns, static_cast<std::int64_t>(local_ns) + offset_ms * ns_per_ms);
}

void SkewedClock::adjust(std::uint64_t local_ns, std::int64_t offset_ms,
                         double drift_ppm) noexcept {
    const auto now_ns = static_cast<std::int64_t>(to_server(local_ns));
    anchor(local_ns, now_ns + (offset_ms - offset_ms_) * ns_per_ms);
    offset_ms_ = offset_ms;
    drift_ppm_ = drift_ppm;
}

std::uint64_t SkewedClock::to_server(std::uint64_t local_ns) const noexcept {
    const auto span_ns = static_cast<std::int64_t>(local_ns - anchor_local_ns_);
    return anchor_server_ns_ +
           static_cast<std::uint64_t>(span_ns + scaled(span_ns, drift_ppm_ * 1e-6));
}

std::uint64_t SkewedClock::to_local(std::uint64_t server_ns) const noexcept {
    const auto span_ns = static_cast<std::int64_t>(server_ns - anchor_server_ns_);
    return anchor_local_ns_ +
           static_cast<std::uint64_t>(span_ns - scaled(span_ns, drift_ppm_ / (1e6 + drift_ppm_)));
}

void SkewedClock::anchor(std::uint64_t local_ns, std::int64_t server_ns) noexcept {
    anchor_local_ns_ = local_ns;
    anchor_server_ns_ = static_cast<std::uint64_t>(std::max(server_ns, earliest_ns));
}

}  // namespace tavistro::server
