// What a running server has counted, as plain values.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/udp_socket.h"
#include "tools/server/input_ring.h"
#include "tools/server/round_trip_meter.h"
#include "tools/server/server_options.h"

namespace tavistro::server {

struct ClientSnapshot {
    platform::Ipv4Endpoint endpoint;
    std::uint32_t client_id = 0;
    std::uint32_t session_id = 0;
    std::vector<std::int32_t> driver_inputs;
    std::vector<std::int32_t> driver_outputs;
    std::uint64_t sync_blocks_sent = 0;
    InputCounters input;
};

struct MeasureSnapshot {
    MeasureOptions channels;
    RoundTripReport report;
};

/// Counts run since the server's start.
struct ServerSnapshot {
    std::uint64_t uptime_ms = 0;
    StreamFormat format;
    std::uint32_t next_sequence = 0;
    std::uint64_t blocks = 0;           ///< mixed
    std::uint64_t blocks_skipped = 0;   ///< given up after a long delay of the whole process
    std::uint64_t lateness_max_us = 0;  ///< of a block against its deadline
    std::uint64_t datagrams_sent = 0;
    std::uint64_t datagrams_received = 0;
    std::uint64_t bytes_sent = 0;
    std::uint64_t bytes_received = 0;
    std::uint64_t send_failures = 0;
    std::uint64_t lost_on_purpose = 0;  ///< by the faults, both directions
    std::uint64_t blocks_sent = 0;      ///< each counted once per client
    // What the faults did to blocks on their way to clients, each counted once per client.
    std::uint64_t blocks_lost = 0;       ///< audio of which a datagram was lost
    std::uint64_t blocks_held_back = 0;  ///< audio of which a datagram was overtaken
    std::uint64_t syncs_lost = 0;
    std::uint64_t malformed = 0;  ///< datagrams that no client sends
    std::uint64_t strangers = 0;  ///< audio of clients that are not registered
    std::uint64_t sessions = 0;   ///< every session begun
    std::uint64_t sessions_replaced = 0;
    std::uint64_t sessions_left = 0;
    std::uint64_t sessions_timed_out = 0;
    InputCounters input;                   ///< of all clients, also those that are gone
    std::uint64_t longest_silence_ms = 0;  ///< in the mix of all clients, between two sounds
    std::vector<ClientSnapshot> clients;
    std::vector<MeasureSnapshot> measures;
    std::uint64_t unobserved_blocks = 0;  ///< neither recorded nor measured: the disk was too slow
    std::string recording_error;          ///< empty: none
};

/// One block of one bus channel.
struct HistoryBlock {
    std::uint32_t sequence = 0;
    std::uint64_t time_ns = 0;  ///< when it was due, server clock
    std::vector<float> samples;
};

}  // namespace tavistro::server
