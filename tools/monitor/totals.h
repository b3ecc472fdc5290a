// What was counted of one engine's run since the monitor began to watch it.
#pragma once

#include <cstdint>

namespace tavistro::monitor {

/// One kind of trouble.
struct Trouble {
    std::int64_t count = 0;      ///< blocks, notices, periods, milliseconds or pauses
    std::int64_t seconds = 0;    ///< in which it was seen
    std::int64_t drop_outs = 0;  ///< underruns and overruns in those seconds or right beside them
};

/// Sums that only grow while `run` stays the same: the difference of two totals of one run is what
/// happened between them. A new run begins, and everything is 0, when the engine's own counters
/// start anew or the stream's format changes.
struct Totals {
    std::int64_t run = 0;
    std::int64_t watched_ms = 0;  ///< since the run was first seen

    std::int64_t reported_ms = 0;  ///< that the engine's reports cover, and so the sums that follow

    std::int64_t blocks = 0;  ///< handed to the player: received ones, and silence for missing ones
    std::int64_t notices = 0;  ///< of the server's clock
    std::int64_t periods = 0;  ///< of the device
    std::int64_t underruns = 0;
    std::int64_t overruns = 0;
    std::int64_t refused = 0;  ///< blocks dropped for another reason than an overrun: their format
    std::int64_t capture_dropped = 0;

    Trouble replaced{};        ///< blocks that silence was played for
    Trouble repeated{};        ///< blocks that came again, or after silence had taken their place
    Trouble notices_missed{};  ///< fewer notices than blocks
    std::int64_t notices_missed_alone = 0;  ///< certainly more than blocks that went missing
    Trouble notice_gaps{};  ///< spans of missed notices, longer than what the buffer holds
    Trouble silence{};      ///< milliseconds without a sign of the server, in spans of over 1 s
    Trouble late{};  ///< spans without a notice, half as long as the buffer, made up for then
    Trouble
        periods_short{};     ///< device periods too few, in seconds with fewer than any clock makes
    Trouble periods_long{};  ///< too many, in seconds with more
    Trouble pauses{};        ///< of this computer's threads, each longer than a block
    Trouble unexplained{};   ///< underruns and overruns with no other trouble in the seconds around

    std::int64_t long_pauses = 0;     ///< those longer than half of what the buffer holds
    std::int64_t paused_periods = 0;  ///< device periods that the pauses would cost
    std::int64_t longest_pause_us = 0;
    std::int64_t longest_late_us = 0;
    std::int64_t shortest_second_ppm =
        0;  ///< by how much the second with the fewest periods was short

    double server_faster_ppm = 0;      ///< the server's blocks against the device's periods
    double clock_uncertainty_ppm = 0;  ///< 0: not known yet
};

}  // namespace tavistro::monitor
