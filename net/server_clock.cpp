#include "net/server_clock.h"

#include <cassert>
#include <limits>

namespace tavistro {

namespace {

std::uint64_t elapsed(std::uint64_t from, std::uint64_t to) noexcept {
    return to >= from ? to - from : 0;
}

double signed_difference(std::uint64_t a, std::uint64_t b) noexcept {
    return static_cast<double>(static_cast<std::int64_t>(a - b));
}

std::int64_t saturate_to_i64(double value) noexcept {
    if (value >= 0x1p63) return std::numeric_limits<std::int64_t>::max();
    if (value < -0x1p63) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(value);
}

std::uint64_t saturate_to_u64(double value) noexcept {
    if (!(value > 0.0)) return 0;
    if (value >= 0x1p64) return std::numeric_limits<std::uint64_t>::max();
    return static_cast<std::uint64_t>(value);
}

}  // namespace

ServerClock::PingStep ServerClock::next_ping_step(std::uint64_t now_ms) noexcept {
    const std::uint64_t age_ms = now_ms - last_ping_ms_;
    if (ping_outstanding_) {
        if (age_ms < ping_timeout_ms) return PingStep::wait;
        ping_outstanding_ = false;
        return PingStep::send_after_loss;
    }
    const bool too_early = last_ping_ms_ != 0 && age_ms < ping_period_ms;
    return too_early ? PingStep::wait : PingStep::send;
}

void ServerClock::ping_sent(const TavistroProtocol::Ping& ping, std::uint64_t now_ms) noexcept {
    ping_outstanding_ = true;
    last_ping_ms_ = now_ms;
    ping_nonce_ = ping.nonce;
    ping_t1_ = ping.t1_ns;
}

std::optional<std::uint64_t> ServerClock::accept(const TavistroProtocol::Pong& pong,
                                                 std::uint64_t t4_ns) noexcept {
    if (!ping_outstanding_ || pong.nonce != ping_nonce_ || pong.t1_ns != ping_t1_) return {};
    ping_outstanding_ = false;
    clock_synced_ = true;
    const double forth = signed_difference(pong.t1_ns, pong.t2_ns);
    const double back = signed_difference(t4_ns, pong.t3_ns);
    clock_offset_ns_ = saturate_to_i64((forth + back) / 2.0);

    const std::uint64_t total = elapsed(pong.t1_ns, t4_ns);
    const std::uint64_t hold = elapsed(pong.t2_ns, pong.t3_ns);
    // Ignore a processing time that is longer than the whole round trip.
    return total > hold ? total - hold : total;
}

void ServerClock::remember_block(std::uint32_t sequence, std::uint64_t server_ns) noexcept {
    assert(clock_synced_);
    const double local_ns = static_cast<double>(clock_offset_ns_) + static_cast<double>(server_ns);
    sync_ring_[sequence % sync_ring_.size()] = {sequence, server_ns, saturate_to_u64(local_ns),
                                                true};
}

ServerClock::SyncRingEntry ServerClock::block_times(std::uint32_t sequence) const noexcept {
    const SyncRingEntry& entry = sync_ring_[sequence % sync_ring_.size()];
    return entry.valid && entry.sequence == sequence ? entry : SyncRingEntry{};
}

}  // namespace tavistro
