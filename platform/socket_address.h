// Addresses in the system's form, which is the same on every system but for its header: the
// system's own (linux/system_socket.h, windows/system_socket.h) comes first and includes this one.
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
