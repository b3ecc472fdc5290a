#include "engine/device_factory.h"

#include "asio/asio_device.h"

namespace tavistro {

std::unique_ptr<AudioDevice> create_default_device() {
    return std::make_unique<AsioDevice>();
}

}  // namespace tavistro
