// The record of the player's statistics, reported at most once per second.
#pragma once

#include <array>
#include <cstdint>

namespace tavistro {

inline constexpr std::size_t max_meters = 32;

/// Counters count from the player's start unless stated otherwise. Frames are per channel.
struct PlayerTelemetry {
    std::uint64_t recvBlocksPerSec = 0;  ///< blocks accepted since the previous report
    std::uint64_t callbacksPerSec = 0;   ///< device periods since the previous report
    std::uint64_t dequeuedPerSec = 0;    ///< blocks rendered since the previous report
    std::uint64_t renderedFrames = 0;
    double pll_ratio = 0.0;
    std::uint64_t playback_buffer_frames = 0;  ///< latest fill level
    std::uint64_t minFrames = 0;               ///< lowest fill level since the previous report
    std::uint64_t maxFrames = 0;
    std::uint64_t target_frames = 0;
    double error_frames = 0.0;  ///< playback_buffer_frames - target_frames
    double buffer_ms = 0.0;
    double buffer_blocks = 0.0;
    std::uint64_t underruns = 0;
    std::uint64_t overruns = 0;
    std::uint64_t playbackDropped = 0;
    std::uint64_t format_drops = 0;
    std::uint64_t output_ready_failures = 0;
    std::uint64_t captureDropped = 0;
    std::uint64_t callbacks_total = 0;
    std::uint64_t callback_duration_last_us = 0;
    std::uint64_t callback_duration_max_us = 0;
    std::uint64_t queue_latency_last_us = 0;  ///< from delivery of a block to its playback
    std::uint64_t queue_latency_max_us = 0;
    std::uint64_t server_to_output_last_us = 0;  ///< from a block's server time to its playback
    std::uint64_t server_to_output_max_us = 0;
    bool device_fault = false;  ///< the device is lost or has requested a reset
    std::uint32_t configured_sample_rate = 0;
    std::uint32_t actual_sample_rate = 0;
    std::uint16_t configured_block_size = 0;
    std::uint16_t actual_block_frames = 0;
    std::uint32_t input_peak_count = 0;
    std::uint32_t output_peak_count = 0;
    std::array<std::uint32_t, max_meters> input_peaks{};  ///< 0..1000 since the previous report
    std::array<std::uint32_t, max_meters> output_peaks{};

    bool operator==(const PlayerTelemetry&) const = default;
};

}  // namespace tavistro
