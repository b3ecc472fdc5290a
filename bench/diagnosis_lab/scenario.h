// Everything that a world is made of: who suffers from what, and how it is watched.
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
    double silent_from_s = 0;         ///< since the monitor's first look
    double silent_for_s = 0;          ///< the server sends nothing; once
    std::int64_t delay_ns = 300'000;  ///< of the network, each way
    std::int64_t net_jitter_ns = 30'000;

    AudioDeviceSettings card{};     ///< only the loopback faults are used
    std::uint32_t card_rate = 0;    ///< Hz; 0: the stream's
    bool card_admits_rate = false;  ///< or claims to run at the stream's

    Load load{};                 ///< of the computer
    double watched_after_s = 0;  ///< the monitor starts so long after the engine
    double watched_for_s = 60;
    std::uint64_t seed = 1;

    double hold_ms() const { return static_cast<double>(latency_blocks) * format.block_ms(); }
    /// How much faster the server's clock runs than the device's; that of a device at another rate
    /// is not looked at.
    double server_faster_ppm() const {
        return 1e6 * ((1 + faults.drift_ppm * 1e-6) / (1 + card.loopback_drift_ppm * 1e-6) - 1);
    }
};

}  // namespace tavistro::diagnosis_lab
