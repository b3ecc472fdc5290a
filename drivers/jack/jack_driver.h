// An ASIO driver that is a client of the JACK server. The host's buffer switch runs within the JACK
// period.
//
// Blocks have the length that the host chooses, whatever the server's period is and becomes;
// drivers/base/reblocker.h is between the two and has the delay. A new period that needs another
// delay interrupts the audio once, which counts as a missed deadline.
//
// Channels are JACK ports named in_1, in_2, ... and out_1, out_2, ... A port exists while the host
// has its channel open. start() connects each port with the server's physical port of the same
// number, if any. The server alone sets the sample rate. When it changes or the server ends, the
// driver requests a reset from the host.
#pragma once

#include <array>
#include <cstdint>

#include "asio/driver_abi.h"

namespace tavistro::jack {

/// The driver's class id: as text and as 16 bytes in memory order.
inline constexpr const char* class_id_text = "{D2C0E0A4-3B7F-4E57-9C1C-5A0F6E8B71D3}";
inline constexpr std::array<std::uint8_t, 16> class_id{
    0xA4, 0xE0, 0xC0, 0xD2, 0x7F, 0x3B, 0x57, 0x4E, 0x9C, 0x1C, 0x5A, 0x0F, 0x6E, 0x8B, 0x71, 0xD3};
inline constexpr const char* driver_name = "JACK";

/// Minimum number of channels in each direction. The user connects those beyond the physical ports.
inline constexpr std::int32_t fewest_channels = 32;

/// Frames of a block.
inline constexpr std::int32_t smallest_block = 16;
inline constexpr std::int32_t largest_block = 8192;

/// A new driver object with one reference; it deletes itself with its last reference. Null if out
/// of memory. init() connects to the server named by JACK_DEFAULT_SERVER, or "default"; it starts
/// no server.
AsioDriver* create_jack_driver() noexcept;

}  // namespace tavistro::jack
