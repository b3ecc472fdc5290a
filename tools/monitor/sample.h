// What was seen of one engine at one moment.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>

#include "tavistro/stats_block.h"
#include "tools/monitor/totals.h"

namespace tavistro::monitor {

enum class Presence {
    absent,  ///< no block of this client_id
    alive,   ///< an engine writes
    silent,  ///< the block says that a run is active, but nobody has written for seconds
    ended,   ///< the run is over; the last values
};

struct Sample {
    std::int64_t time_ms = 0;  ///< since 1970, UTC
    std::uint32_t client_id = 0;
    Presence presence = Presence::absent;
    /// How much too late this computer woke a sleeping thread since the sample before, at most.
    std::uint32_t host_late_us = 0;
    std::optional<tavistro_stats_block> stats{};  ///< nothing when absent
    Totals totals{};                              ///< of the run that `stats` belongs to
};

inline double seconds_between(const Sample& first, const Sample& second) {
    return static_cast<double>(second.time_ms - first.time_ms) / 1000.0;
}

inline bool is_same(const tavistro_stats_block& a, const tavistro_stats_block& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

}  // namespace tavistro::monitor
