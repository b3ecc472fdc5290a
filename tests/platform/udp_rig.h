// What the tests of sockets send and receive.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <vector>

#include "platform/udp_socket.h"

namespace tavistro::platform {

using Bytes = std::vector<std::uint8_t>;
constexpr std::array<std::uint8_t, 3> hello{1, 2, 3};

inline SocketOptions on_loopback(std::uint32_t receive_buffer_bytes = 1 << 20) {
    return {.recv_buffer_bytes = receive_buffer_bytes, .bind = {ipv4_loopback, 0}};
}

struct Arrived {
    std::vector<Bytes> datagrams;
    std::size_t receives = 0;  ///< that they came in
};
/// Waits for `count` datagrams, or until none has come for `timeout_ms`.
inline Arrived receive_all(UdpSocket& socket, std::size_t count, std::uint32_t timeout_ms = 2000) {
    Bytes buffer(max_datagram_bytes);
    Arrived arrived;
    socket.set_receive_timeout(timeout_ms);
    for (; arrived.datagrams.size() < count; ++arrived.receives) {
        const ReceiveResult got = socket.receive(buffer);
        if (got.status != ReceiveStatus::datagram) break;
        for_each_datagram(got, buffer, [&](DatagramBytes datagram) {
            arrived.datagrams.emplace_back(datagram.begin(), datagram.end());
        });
    }
    return arrived;
}

/// Datagrams of these sizes, each filled with its number.
inline std::vector<Bytes> numbered(const std::vector<std::size_t>& sizes) {
    std::vector<Bytes> datagrams;
    for (const std::size_t size : sizes)
        datagrams.emplace_back(size, static_cast<std::uint8_t>(datagrams.size()));
    return datagrams;
}
inline SentDatagrams send_run(UdpSocket& socket, const std::vector<Bytes>& datagrams,
                              const Ipv4Endpoint& to) {
    return socket.send_run(std::vector<DatagramBytes>(datagrams.begin(), datagrams.end()), to);
}

}  // namespace tavistro::platform
