// What the engine's record does not tell about a run that does not get going.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "config/settings.h"

namespace tavistro::host {

/// Answers are lines of whole sentences, empty when there is nothing to add.
class StartAdvice {
  public:
    explicit StartAdvice(EngineConfig config) : config_(std::move(config)) {}

    /// For the first failed attempt to find a server: who was asked.
    std::string no_server() const;
    /// For the first failed attempt to start the device: which drivers there are, and where.
    std::string no_device() const;
    /// For a run that a device ended, once the engine has released it: what the driver has against
    /// the stream's rate in Hz and block. Opens the driver. 0: not known.
    std::string driver_words(double stream_rate, std::int32_t block_frames) const;
    /// For a run that an incompatible server ended: which versions are spoken. Asks the servers
    /// again, and waits as long as the engine does.
    std::string incompatible_server() const;

  private:
    EngineConfig config_;
};

}  // namespace tavistro::host
