#include "tools/monitor/client_watch.h"

#include "tavistro/engine.h"

namespace tavistro::monitor {

namespace {

/// A running engine reports once a second; one that waits for a lost server at least when it gives
/// up on a ping, every three seconds.
constexpr std::int64_t silence_limit_ms = 5000;

bool run_is_over(const tavistro_stats_block& block) {
    return block.state == TAVISTRO_STATE_STOPPED || block.state == TAVISTRO_STATE_FAILED;
}

}  // namespace

Sample ClientWatch::look(std::int64_t time_ms) {
    Sample sample{.time_ms = time_ms, .client_id = client_id_};
    const auto now = read_newest();
    if (now && !(last_ && is_same(*now, *last_))) last_change_ms_ = time_ms;
    if (now) last_ = now;
    sample.stats = last_;
    if (!last_) return sample;
    // A block that went away without a last word belonged to a run that was stopped just now.
    if (!now || run_is_over(*last_)) {
        sample.presence = Presence::ended;
    } else {
        const bool silent = time_ms - last_change_ms_ > silence_limit_ms || !reader_.is_held();
        sample.presence = silent ? Presence::silent : Presence::alive;
    }
    return sample;
}

/// A run that is over or silent may have been followed by one with a block of its own.
std::optional<tavistro_stats_block> ClientWatch::read_newest() {
    auto block = reader_.read();
    if (block && !run_is_over(*block) && !(last_ && is_same(*block, *last_))) return block;
    const auto held = block;
    reader_.close();
    if (!reader_.open(client_id_)) return held && run_is_over(*held) ? held : std::nullopt;
    block = reader_.read();
    return block ? block : held;
}

}  // namespace tavistro::monitor
