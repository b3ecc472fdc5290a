// An ASIO driver that is a client of the JACK server: what the server's graph carries in one period
// is the host's period, so that JACK adds no buffer of its own.
//
// Channels are ports, in_1, in_2, ... and out_1, out_2, ...; those that a host opens exist, and a
// start connects each with the server's physical port of the same number, if there is one. Period
// and sample rate are the server's alone. When one of them changes, or the server goes away, the
// host is asked for a reset.
#pragma once

#include <array>
#include <cstdint>

#include "asio/driver_abi.h"

namespace tavistro::jack {

/// The driver's class: as text, and as 16 bytes in memory order.
inline constexpr const char* class_id_text = "{D2C0E0A4-3B7F-4E57-9C1C-5A0F6E8B71D3}";
inline constexpr std::array<std::uint8_t, 16> class_id{
    0xA4, 0xE0, 0xC0, 0xD2, 0x7F, 0x3B, 0x57, 0x4E, 0x9C, 0x1C, 0x5A, 0x0F, 0x6E, 0x8B, 0x71, 0xD3};
inline constexpr const char* driver_name = "JACK";

/// Channels of either direction, at least: those beyond the server's physical ports are connected
/// by the user.
inline constexpr std::int32_t fewest_channels = 32;

/// A new driver object with one reference, gone with its last one; null without memory. It looks
/// for the server in init(), by the name in JACK_DEFAULT_SERVER or "default", and starts none.
AsioDriver* create_jack_driver() noexcept;

}  // namespace tavistro::jack
