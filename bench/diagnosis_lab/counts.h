// What truly happened in a world, counted where it happens.
#pragma once

#include <cstdint>

namespace tavistro::diagnosis_lab {

struct Counts {
    std::int64_t received = 0;    ///< blocks that came in time
    std::int64_t replaced = 0;    ///< blocks that silence was handed to the player for
    std::int64_t late = 0;        ///< blocks that came after silence had taken their place
    std::int64_t came_again = 0;  ///< blocks that came a second time
    std::int64_t notices = 0;     ///< of the server's clock, that the session took
    // Before the engine knows the server's clock it publishes no notices.
    std::int64_t untimed_blocks = 0;   ///< of the blocks, received or replaced
    std::int64_t untimed_notices = 0;  ///< of the notices
    std::int64_t in_silence = 0;       ///< replaced blocks that the silent server never sent
    std::int64_t refused = 0;          ///< blocks of another rate than the device's
    std::int64_t overruns = 0;         ///< as the player last reported them
    std::int64_t periods = 0;          ///< device periods that were run
    std::int64_t periods_missed = 0;
    std::int64_t periods_doubled = 0;
    std::int64_t underruns = 0;
    std::int64_t silence_ms = 0;  ///< without a datagram of the server, in spans of over a second

    std::int64_t blocks() const { return received + replaced; }
    std::int64_t notices_missed() const { return blocks() - notices; }
    std::int64_t timed_notices() const { return notices - untimed_notices; }
    std::int64_t timed_notices_missed() const {
        return blocks() - untimed_blocks - timed_notices();
    }
};

/// What happened between two moments.
inline Counts operator-(const Counts& after, const Counts& before) {
    return {.received = after.received - before.received,
            .replaced = after.replaced - before.replaced,
            .late = after.late - before.late,
            .came_again = after.came_again - before.came_again,
            .notices = after.notices - before.notices,
            .untimed_blocks = after.untimed_blocks - before.untimed_blocks,
            .untimed_notices = after.untimed_notices - before.untimed_notices,
            .in_silence = after.in_silence - before.in_silence,
            .refused = after.refused - before.refused,
            .overruns = after.overruns - before.overruns,
            .periods = after.periods - before.periods,
            .periods_missed = after.periods_missed - before.periods_missed,
            .periods_doubled = after.periods_doubled - before.periods_doubled,
            .underruns = after.underruns - before.underruns,
            .silence_ms = after.silence_ms - before.silence_ms};
}

/// What the engine itself counted of the same; for the check that both agree.
struct EngineCounts {
    std::int64_t received = 0;
    std::int64_t repeated = 0;
    std::int64_t notices = 0;  ///< since it knew the server's clock
    std::int64_t queued = 0;
    std::int64_t dropped = 0;
    std::int64_t overruns = 0;
    std::int64_t underruns = 0;
    std::int64_t periods = 0;
    std::int64_t recoveries_wanted = 0;
};

}  // namespace tavistro::diagnosis_lab
