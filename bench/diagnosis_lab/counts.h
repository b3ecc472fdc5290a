// The true event counts of a simulated world, counted at their source.
#pragma once

#include <cstdint>

namespace tavistro::diagnosis_lab {

struct Counts {
    std::int64_t received = 0;    ///< blocks that arrived in time
    std::int64_t replaced = 0;    ///< blocks that the session replaced with silence
    std::int64_t late = 0;        ///< blocks that arrived after they had been replaced
    std::int64_t came_again = 0;  ///< duplicate blocks
    std::int64_t notices = 0;     ///< sync notices that the session accepted
    // The engine publishes no sync notices until it knows the server's clock.
    std::int64_t untimed_blocks = 0;   ///< blocks before that, received or replaced
    std::int64_t untimed_notices = 0;  ///< sync notices before that
    std::int64_t in_silence = 0;       ///< replaced blocks that the silent server never sent
    std::int64_t refused = 0;          ///< blocks with another sample rate than the device's
    std::int64_t overruns = 0;         ///< as of the player's last report
    std::int64_t periods = 0;          ///< device periods that ran
    std::int64_t periods_missed = 0;
    std::int64_t periods_doubled = 0;
    std::int64_t underruns = 0;
    std::int64_t silence_ms =
        0;  ///< sum of the intervals of over 1 s without a datagram from the server

    std::int64_t blocks() const { return received + replaced; }
    std::int64_t notices_missed() const { return blocks() - notices; }
    std::int64_t timed_notices() const { return notices - untimed_notices; }
    std::int64_t timed_notices_missed() const {
        return blocks() - untimed_blocks - timed_notices();
    }
};

/// The events between two moments.
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

/// The engine's own counts of these events, to check that both agree.
struct EngineCounts {
    std::int64_t received = 0;
    std::int64_t repeated = 0;
    std::int64_t notices = 0;  ///< sync notices since it knows the server's clock
    std::int64_t queued = 0;
    std::int64_t dropped = 0;
    std::int64_t overruns = 0;
    std::int64_t underruns = 0;
    std::int64_t periods = 0;
    std::int64_t recoveries_wanted = 0;
};

}  // namespace tavistro::diagnosis_lab
