// What the network client hands to its users.
#pragma once

#include <cstdint>
#include <vector>

namespace TavistroProtocol {

/// One complete audio block from the server, or the silence that stands in for a lost one (then
/// all four times are 0).
struct CompletedOutputBlock {
    std::uint32_t sequence = 0;
    std::uint32_t sample_rate = 0;  ///< Hz
    std::uint16_t frames = 0;
    std::uint16_t channels = 0;
    std::uint64_t server_time_ns = 0;        ///< server clock of the block; 0 when unknown
    std::uint64_t server_time_local_ns = 0;  ///< the same instant on our clock; 0 when unknown
    std::uint64_t arrival_time_ns = 0;       ///< when the datagram that completed the block came
    std::uint64_t delivery_time_ns = 0;      ///< just before the block was handed out
    std::vector<float> samples;              ///< planar: channel c, frame f at c * frames + f
};

/// One accepted notice of the server's block clock.
struct SyncInfo {
    std::uint32_t sequence = 0;
    std::uint32_t sample_rate = 0;  ///< Hz
    std::uint16_t block_frames = 0;
    std::uint64_t server_frame_position = 0;  ///< grows by block_frames per block
    std::uint64_t server_time_ns = 0;         ///< server clock of this block; 0 means none
};

}  // namespace TavistroProtocol
