#include "tools/monitor/client_watch.h"

#include "tavistro/engine.h"

namespace tavistro::monitor {

namespace {

/// A running engine reports once a second; one that waits for a lost server at least when it gives
/// up on a ping, every three seconds.
constexpr std::int64_t silence_limit_us = 5'000'000;
constexpr std::int64_t check_every_us = 250'000;

bool run_is_over(const tavistro_stats_block& block) {
    return block.state == TAVISTRO_STATE_STOPPED || block.state == TAVISTRO_STATE_FAILED;
}

}  // namespace

void ClientWatch::glance(std::int64_t now_us, std::int64_t overslept_us) {
    if (now_us - last_check_us_ >= check_every_us) return check(now_us, overslept_us);
    if (presence_ != Presence::alive) return;
    if (const auto block = reader_.read()) tally_.look(now_us, overslept_us, *block);
}

std::int64_t ClientWatch::next_glance_us() const noexcept {
    return presence_ == Presence::alive ? tally_.next_look_us() : last_check_us_ + check_every_us;
}

Sample ClientWatch::look(std::int64_t now_us) {
    check(now_us, 0);
    return {
        .client_id = client_id_, .presence = presence_, .stats = last_, .totals = tally_.totals()};
}

void ClientWatch::check(std::int64_t now_us, std::int64_t overslept_us) {
    last_check_us_ = now_us;
    const auto now = read_newest();
    if (now && !(last_ && is_same(*now, *last_))) last_change_us_ = now_us;
    if (now) last_ = now;
    if (!last_) return;
    // A block that went away without a last word belonged to a run that was stopped just now.
    if (!now || run_is_over(*last_)) {
        presence_ = Presence::ended;
    } else {
        const bool silent = now_us - last_change_us_ > silence_limit_us || !reader_.is_held();
        presence_ = silent ? Presence::silent : Presence::alive;
    }
    // What a dead engine left behind tells nothing of its server or its device.
    if (presence_ == Presence::alive) tally_.look(now_us, overslept_us, *now);
}

/// A run that is over or silent may have been followed by one with a block of its own.
std::optional<tavistro_stats_block> ClientWatch::read_newest() {
    const auto held = reader_.read();
    const bool is_over = held && run_is_over(*held);
    if (held && !is_over && !(last_ && is_same(*held, *last_))) return held;
    reader_.close();
    if (!reader_.open(client_id_)) return is_over ? held : std::nullopt;
    const auto newest = reader_.read();
    return newest ? newest : held;
}

}  // namespace tavistro::monitor
