// The settings of a run as plain values, loaded and validated by engine_config.h.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace TavistroProtocol {

/// Settings of the network client. Copied by value into the client at start.
struct ClientSettings {
    std::uint32_t client_id = 1;  ///< identifies this client to the server, never 0
    std::uint16_t server_port = 28010;
    std::uint64_t client_latency_blocks = 6;   ///< 1..128
    std::uint32_t announce_period_ms = 1000;   ///< 1..3999
    std::uint32_t discovery_timeout_ms = 500;  ///< 1..10000
    bool discovery_broadcast = true;  ///< discovery also uses the limited broadcast address
    std::uint32_t recv_buffer_bytes = 1048576;
    std::uint32_t send_buffer_bytes = 1048576;
    std::uint32_t udp_payload_bytes = 1200;   ///< largest datagram of captured audio, 52..65507
    std::uint64_t capture_target_blocks = 2;  ///< target fill level of the capture ring
    std::uint64_t capture_capacity_blocks = 10;
    std::uint32_t input_latency_blocks = 6;    ///< first latency word of the announce
    std::uint32_t output_latency_blocks = 6;   ///< second latency word of the announce
    std::vector<std::int32_t> driver_inputs;   ///< server channels that this client sends to, 0..31
    std::vector<std::int32_t> driver_outputs;  ///< server channels that this client receives, 0..31
    std::string server_ip;  ///< "auto" in any letter case, or a dotted IPv4 address
};

}  // namespace TavistroProtocol

namespace tavistro {

/// Settings of the audio path. Copied by value into the player at start.
struct AudioDeviceSettings {
    std::string driver_name;
    std::uint32_t sample_rate = 48000;             ///< Hz; overridden by the server's stream format
    std::uint32_t block_size = 128;                ///< frames per block; overridden likewise
    std::vector<std::int32_t> output_channel_map;  ///< hardware channel of each logical output
    std::vector<std::int32_t> input_channel_map;   ///< hardware channel of each logical input
    std::uint64_t prebuffer_blocks = 5;            ///< blocks buffered before playback starts
    std::uint64_t target_queue_depth = 6;          ///< target of drift control, in blocks
    std::uint64_t max_queue_blocks = 10;           ///< capacity of the playback buffer, in blocks
    // Injected faults of the virtual loopback device; 0 is off.
    std::int32_t loopback_drift_ppm = 0;
    std::uint32_t loopback_callback_jitter_max_ms = 0;
    std::uint32_t loopback_callback_skip_every = 0;
    std::uint32_t loopback_callback_skip_count = 0;
    std::uint32_t loopback_callback_duplicate_every = 0;
    std::uint32_t loopback_callback_duplicate_count = 0;
    std::uint32_t loopback_callback_stall_every_ms = 0;
    std::uint32_t loopback_callback_stall_duration_ms = 0;
    std::uint32_t loopback_input_silence_every_ms = 0;
    std::uint32_t loopback_input_silence_duration_ms = 0;
    std::uint32_t loopback_device_lost_after_ms = 0;
    std::uint32_t loopback_device_lost_duration_ms = 0;
};

/// All settings of a run. The constructor sets the defaults, including the derived sizes.
struct EngineConfig {
    EngineConfig();

    TavistroProtocol::ClientSettings client;
    AudioDeviceSettings audio;
    bool loopback_device = false;  ///< use the virtual loopback device instead of ASIO
};

}  // namespace tavistro
