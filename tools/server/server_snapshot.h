// A copy of the server's counters and clients at one moment.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "net/protocol.h"
#include "platform/udp_socket.h"
#include "tools/server/round_trip_meter.h"
#include "tools/server/server_counters.h"
#include "tools/server/server_options.h"

namespace tavistro::server {

struct ClientSnapshot {
    platform::Ipv4Endpoint endpoint;
    TavistroProtocol::Announce announce;  ///< the latest
    std::uint64_t sync_blocks_sent = 0;
    InputCounters input;
};

struct MeasureSnapshot {
    MeasureOptions channels;
    RoundTripReport report;
};

struct ServerSnapshot : TrafficCounters, MixCounters, SessionCounters {
    std::uint64_t uptime_ms = 0;
    StreamFormat format;
    std::uint32_t next_sequence = 0;
    std::uint64_t blocks = 0;  ///< mixed
    InputCounters input;       ///< sum over all clients, including those that left
    std::vector<ClientSnapshot> clients;
    std::vector<MeasureSnapshot> measures;
    std::uint64_t unobserved_blocks = 0;  ///< not recorded or measured: disk or CPU too slow
    std::string recording_error;          ///< empty: none
};

/// One block of one bus channel.
struct HistoryBlock {
    std::uint32_t sequence = 0;
    std::uint64_t time_ns = 0;  ///< deadline, server clock
    std::vector<float> samples;
};

}  // namespace tavistro::server
