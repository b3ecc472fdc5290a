// The server's counters since its start, grouped by the part that counts.
#pragma once

#include <cstdint>

namespace tavistro::server {

/// Traffic on the socket and the effects of simulated faults on it.
struct TrafficCounters {
    std::uint64_t datagrams_sent = 0;
    std::uint64_t datagrams_received = 0;
    std::uint64_t bytes_sent = 0;
    std::uint64_t bytes_received = 0;
    std::uint64_t send_failures = 0;
    std::uint64_t lost_on_purpose = 0;  ///< datagrams dropped by faults, both directions
    // Effects of the faults on the way to the clients, counted once per block and client.
    std::uint64_t blocks_lost = 0;       ///< audio blocks with a dropped datagram
    std::uint64_t blocks_held_back = 0;  ///< audio blocks with a reordered datagram
    std::uint64_t syncs_lost = 0;        ///< dropped sync notices
};

/// Counted while mixing.
struct MixCounters {
    std::uint64_t blocks_skipped = 0;      ///< not mixed because the process was delayed too long
    std::uint64_t lateness_max_us = 0;     ///< largest delay of a block past its deadline
    std::uint64_t blocks_sent = 0;         ///< counted once per client
    std::uint64_t malformed = 0;           ///< invalid datagrams
    std::uint64_t strangers = 0;           ///< audio datagrams of clients that are not registered
    std::uint64_t longest_silence_ms = 0;  ///< longest time between two blocks with client audio
};

/// Client sessions.
struct SessionCounters {
    std::uint64_t sessions = 0;            ///< all that began
    std::uint64_t sessions_replaced = 0;   ///< ended by a new session of the same client
    std::uint64_t sessions_left = 0;       ///< ended by the client
    std::uint64_t sessions_timed_out = 0;  ///< ended because the client fell silent
};

/// One client's input, in blocks unless stated otherwise.
struct InputCounters {
    std::uint64_t complete = 0;    ///< mixed with all fragments
    std::uint64_t incomplete = 0;  ///< mixed with some fragments missing
    std::uint64_t missing = 0;     ///< no fragment in time; counted after the first input
    std::uint64_t late = 0;        ///< arrived after its block was mixed
    std::uint64_t early = 0;       ///< tagged too far ahead
    std::uint64_t mismatched = 0;  ///< fragments with a wrong format or channel count
    std::uint64_t duplicates = 0;  ///< duplicate fragments
    std::uint64_t gaps = 0;        ///< silent gaps within the received audio, first channel

    InputCounters& operator+=(const InputCounters& other) noexcept {
        complete += other.complete;
        incomplete += other.incomplete;
        missing += other.missing;
        late += other.late;
        early += other.early;
        mismatched += other.mismatched;
        duplicates += other.duplicates;
        gaps += other.gaps;
        return *this;
    }
};

}  // namespace tavistro::server
