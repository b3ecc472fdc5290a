// Records that the network client passes to its callbacks.
#pragma once

#include <cstdint>
#include <vector>

namespace TavistroProtocol {

/// A complete audio block from the server, or silence in place of a lost one (all four times are
/// 0 then).
struct CompletedOutputBlock {
    std::uint32_t sequence = 0;
    std::uint32_t sample_rate = 0;  ///< Hz
    std::uint16_t frames = 0;
    std::uint16_t channels = 0;
    std::uint64_t server_time_ns = 0;        ///< server clock of the block; 0 if unknown
    std::uint64_t server_time_local_ns = 0;  ///< the same instant on the local clock; 0 if unknown
    std::uint64_t arrival_time_ns = 0;       ///< arrival of the datagram that completed the block
    std::uint64_t delivery_time_ns = 0;      ///< just before the block callback
    std::vector<float> samples;              ///< planar: channel c, frame f at c * frames + f
};

/// An accepted sync notice of the server.
struct SyncInfo {
    std::uint32_t sequence = 0;
    std::uint32_t sample_rate = 0;  ///< Hz
    std::uint16_t block_frames = 0;
    std::uint64_t server_frame_position = 0;  ///< increases by block_frames per block
    std::uint64_t server_time_ns = 0;         ///< server clock of this block; 0: none
};

}  // namespace TavistroProtocol
