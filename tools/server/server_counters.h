// What a server counts, by who counts it. Counts run since the server's start.
#pragma once

#include <cstdint>

namespace tavistro::server {

/// On the socket, and what the faults did there.
struct TrafficCounters {
    std::uint64_t datagrams_sent = 0;
    std::uint64_t datagrams_received = 0;
    std::uint64_t bytes_sent = 0;
    std::uint64_t bytes_received = 0;
    std::uint64_t send_failures = 0;
    std::uint64_t lost_on_purpose = 0;  ///< by the faults, both directions
    // What the faults did to blocks on their way to clients, each counted once per client.
    std::uint64_t blocks_lost = 0;       ///< audio of which a datagram was lost
    std::uint64_t blocks_held_back = 0;  ///< audio of which a datagram was overtaken
    std::uint64_t syncs_lost = 0;
};

/// By the session that mixes.
struct MixCounters {
    std::uint64_t blocks_skipped = 0;      ///< given up after a long delay of the whole process
    std::uint64_t lateness_max_us = 0;     ///< of a block against its deadline
    std::uint64_t blocks_sent = 0;         ///< each counted once per client
    std::uint64_t malformed = 0;           ///< datagrams that no client sends
    std::uint64_t strangers = 0;           ///< audio of clients that are not registered
    std::uint64_t longest_silence_ms = 0;  ///< in the mix of all clients, between two sounds
};

/// Of clients.
struct SessionCounters {
    std::uint64_t sessions = 0;           ///< every session begun
    std::uint64_t sessions_replaced = 0;  ///< begun while an older one of the client was known
    std::uint64_t sessions_left = 0;
    std::uint64_t sessions_timed_out = 0;
};

/// Of one client's input, in blocks.
struct InputCounters {
    std::uint64_t complete = 0;    ///< mixed with every fragment
    std::uint64_t incomplete = 0;  ///< mixed as far as it came
    std::uint64_t missing = 0;     ///< nothing came in time, from the first input on
    std::uint64_t late = 0;        ///< came after its block was mixed
    std::uint64_t early = 0;       ///< tagged too far ahead
    std::uint64_t mismatched = 0;  ///< fragments of another format or channel count
    std::uint64_t duplicates = 0;  ///< repeated fragments
    std::uint64_t gaps = 0;        ///< silences amid the sound of the first channel of what came

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
