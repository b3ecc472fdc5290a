// One period of audio from the playback buffer to the device.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tavistro {

/// Allocated when the device is opened, filled in every period. Sequence and times are those of the
/// received block that contains the first frame.
struct PlaybackBlock {
    std::vector<float> samples;  ///< planar: channel c starts at c * frames per period
    std::uint32_t sequence = 0;
    std::uint32_t sample_rate = 0;  ///< Hz
    std::uint16_t frames = 0;
    std::uint16_t channels = 0;
    std::uint64_t server_time_local_ns = 0;
    std::uint64_t arrival_time_ns = 0;
    std::uint64_t delivery_time_ns = 0;
};

}  // namespace tavistro
