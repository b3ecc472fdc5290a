// An ASIO driver without hardware, with its own thread and clock.
//
// The module's DriverControl sets its channels, sample types, buffer sizes, sample rates, clock
// drift and the quirks of real drivers. Its outputs return on its inputs one period later.
#pragma once

#include <array>
#include <cstdint>

#include "asio/driver_abi.h"

namespace tavistro::test {

/// The driver's class id: as text and as 16 bytes in memory order.
inline constexpr const char* driver_class_id_text = "{6B1D5B1E-93B5-4B0C-9E0E-3C5E0A7F41D2}";
inline constexpr std::array<std::uint8_t, 16> driver_class_id{
    0x1E, 0x5B, 0x1D, 0x6B, 0xB5, 0x93, 0x0C, 0x4B, 0x9E, 0x0E, 0x3C, 0x5E, 0x0A, 0x7F, 0x41, 0xD2};
inline constexpr const char* driver_name = "Tavistro Test Driver";

/// A new driver object with one reference; it deletes itself with its last reference. Null if
/// "create" is set to fail.
AsioDriver* create_test_driver() noexcept;

}  // namespace tavistro::test
