// What was seen of one engine at one moment.
#pragma once

#include <cstdint>
#include <optional>

#include "tavistro/stats_block.h"

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
    /// Nothing when it was not measured.
    std::optional<std::uint32_t> host_late_us{};
    std::optional<tavistro_stats_block> stats{};  ///< nothing when absent
};

}  // namespace tavistro::monitor
