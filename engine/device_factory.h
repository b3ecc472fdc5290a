// Which device an engine plays on unless it is told otherwise.
#pragma once

#include <memory>

#include "asio/audio_device.h"

namespace tavistro {

/// A new, unopened ASIO device. One at a time may be open in a process.
std::unique_ptr<AudioDevice> create_default_device();

}  // namespace tavistro
