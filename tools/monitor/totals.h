// What was counted of one engine's run since the monitor began to watch it.
#pragma once

#include <cstdint>

namespace tavistro::monitor {

/// One kind of trouble. Its `drop_outs` are the underruns and overruns of the seconds in which it
/// was seen, or of those beside them.
struct Trouble {
    std::int64_t count = 0;    ///< blocks, notices, periods or pauses
    std::int64_t seconds = 0;  ///< in which it was seen
    std::int64_t drop_outs = 0;
    std::int64_t last_ms = -1;  ///< of watched_ms, when it was seen last; -1: never
};

/// Sums that only grow while `run` stays the same: the difference of two totals of one run is what
/// happened between them. A new run begins when the engine's own counters do, and with each other
/// format; everything is 0 then.
struct Totals {
    std::int64_t run = 0;
    std::int64_t watched_ms = 0;  ///< since the run was first seen

    std::int64_t blocks = 0;  ///< handed to the player: received ones, and silence for missing ones
    std::int64_t notices = 0;  ///< of the server's clock
    std::int64_t periods = 0;  ///< of the device
    std::int64_t underruns = 0;
    std::int64_t overruns = 0;
    std::int64_t refused = 0;  ///< blocks dropped for another reason than an overrun: their format
    std::int64_t capture_dropped = 0;

    Trouble replaced;        ///< blocks that silence was played for
    Trouble repeated;        ///< blocks that came again, or after silence had taken their place
    Trouble notices_missed;  ///< fewer notices than blocks
    Trouble silence;  ///< milliseconds without anything from the server, in spans of over 1 s
    Trouble still;    ///< milliseconds without a device period, in spans of over 0.5 s
    Trouble periods_missed;  ///< in seconds that had fewer periods than a clock can make of them
    Trouble periods_doubled;
    Trouble late;    ///< notices later than half of what the buffer holds
    Trouble pauses;  ///< of this computer's threads, each longer than a block

    std::int64_t paused_periods = 0;  ///< device periods that the pauses seen would cost
    std::int64_t long_pauses = 0;     ///< longer than half of what the buffer holds
    std::int64_t longest_pause_us = 0;
    std::int64_t latest_notice_us = 0;  ///< behind the most punctual one of its second
    std::int64_t lowest_fill_frames = 0;
    std::int64_t highest_fill_frames = 0;

    double server_faster_ppm = 0;      ///< the server's blocks against the device's periods
    double clock_uncertainty_ppm = 0;  ///< 95 %; 0: not known yet
};

}  // namespace tavistro::monitor
