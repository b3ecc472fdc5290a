// Conversion to the system's socket address. The code is the same on every system, the header is
// not: linux/system_socket.h and windows/system_socket.h include this file after their own.
#pragma once

#include "platform/udp_socket.h"

namespace tavistro::platform {

inline sockaddr_in to_system(const Ipv4Endpoint& endpoint) noexcept {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(endpoint.port);
    address.sin_addr.s_addr = htonl(endpoint.address);
    return address;
}
inline Ipv4Endpoint from_system(const sockaddr_in& address) noexcept {
    return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
}

}  // namespace tavistro::platform
