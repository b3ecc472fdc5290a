#include "platform/windows/datagram_receive.h"

namespace tavistro::platform {

int receive_datagram(SOCKET socket, std::span<std::uint8_t> buffer, sockaddr_in& source) noexcept {
    int source_size = sizeof source;
    return ::recvfrom(socket, reinterpret_cast<char*>(buffer.data()),
                      static_cast<int>(buffer.size()), 0, reinterpret_cast<sockaddr*>(&source),
                      &source_size);
}

}  // namespace tavistro::platform
