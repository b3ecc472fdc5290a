// Why the network client could not start.
#pragma once

#include <cstdint>

namespace tavistro {

enum class ClientError : std::uint32_t {
    None = 0,
    Socket = 1,        ///< no network stack, no socket, or server_ip is not an address
    NoServer = 2,      ///< no server answered in time
    Incompatible = 3,  ///< a server answered with a different version or capability word
    Thread = 4,        ///< a thread could not be started
};

}  // namespace tavistro
