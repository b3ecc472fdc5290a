// All settings of a world: its faults and how the monitor observes it.
#pragma once

#include <cstdint>

#include "bench/diagnosis_lab/computer.h"
#include "config/settings.h"
#include "tools/server/server_options.h"

namespace tavistro::diagnosis_lab {

struct Scenario {
    server::StreamFormat format{};
    std::uint64_t latency_blocks = 6;  ///< client_latency_blocks

    server::FaultOptions faults{};    ///< of the network and the server
    double silent_from_s = 0;         ///< start of the server's silence after the first look
    double silent_for_s = 0;          ///< its length; the server sends nothing; 0: none
    std::int64_t delay_ns = 300'000;  ///< network delay in each direction
    std::int64_t net_jitter_ns = 30'000;

    AudioDeviceSettings card{};     ///< only the loopback faults are used
    std::uint32_t card_rate = 0;    ///< Hz; 0: the stream's
    bool card_admits_rate = false;  ///< false: it reports the stream's rate

    Load load{};                 ///< of the computer
    double watched_after_s = 0;  ///< time from the engine's start to the monitor's
    double watched_for_s = 60;
    std::uint64_t seed = 1;

    double hold_ms() const { return static_cast<double>(latency_blocks) * format.block_ms(); }
    /// How much faster the server clock is than the device clock. Ignores card_rate.
    double server_faster_ppm() const {
        return 1e6 * ((1 + faults.drift_ppm * 1e-6) / (1 + card.loopback_drift_ppm * 1e-6) - 1);
    }
};

}  // namespace tavistro::diagnosis_lab
