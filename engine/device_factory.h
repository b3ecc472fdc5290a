// The default audio device of an engine.
#pragma once

#include <memory>

#include "asio/audio_device.h"

namespace tavistro {

/// Returns a new, unopened ASIO device. A process may have only one open at a time.
std::unique_ptr<AudioDevice> create_default_device();

}  // namespace tavistro
