// What a device's two sides offer together: rates, channels and block sizes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "drivers/alsa/cards.h"

namespace tavistro::alsa {

/// What both sides accept at one sample rate.
struct Offer {
    unsigned rate = 0;         ///< Hz
    unsigned blocks = 0;       ///< in the device's buffer: as few as it takes, at least 2
    std::int32_t inputs = 0;   ///< channels; 0 without that side
    std::int32_t outputs = 0;  ///< channels; 0 without that side
    std::int32_t smallest = 0, largest = 0;  ///< frames of a block
    std::int32_t step = 0;                   ///< between sizes; -1: powers of two; 0: one size
};

struct DeviceOffer {
    std::string playback{}, capture{};  ///< ALSA's names to open; empty: no such side
    bool two_channels = false;          ///< the device leaves the number open: two are used
    std::vector<Offer> offers{};        ///< by rate; not empty without a fault
    std::string fault{};                ///< why the device cannot be used; empty if it can
};

/// Opens the device for a moment, without waiting for another program to release it. Throws
/// std::bad_alloc.
DeviceOffer ask_device(const DriverEntry& driver);

}  // namespace tavistro::alsa
