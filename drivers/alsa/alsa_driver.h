// An ASIO driver that plays and records on a sound card, without a sound server.
//
// The device is opened exclusively while the host has buffers. Its own thread, "tav-alsa", waits
// for the card, takes a block from it, calls the host and passes the host's block to the card: two
// blocks from output to input, or as many as the card needs in its buffer.
#pragma once

#include "asio/driver_abi.h"
#include "drivers/alsa/cards.h"

namespace tavistro::alsa {

/// A new driver object with one reference; it deletes itself with its last reference. Null if out
/// of memory.
AsioDriver* create_alsa_driver(const DriverEntry& entry) noexcept;

}  // namespace tavistro::alsa
