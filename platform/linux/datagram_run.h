// Several datagrams of one size in one system call: the kernel cuts one piece into datagrams as
// late as it can (UDP_SEGMENT, Linux 4.18) and hands a socket that wants so what came together as
// one piece again (UDP_GRO, Linux 5.0).
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/udp_socket.h"

namespace tavistro::platform {

/// How many datagrams from the first on, of one that has at least one, can be one piece.
std::size_t run_length(std::span<const DatagramBytes> datagrams) noexcept;

/// Sends a run, of at least two, without waiting for room. The bytes taken, or -1 with the reason
/// in errno.
ssize_t send_as_one(int socket, std::span<const DatagramBytes> run, sockaddr_in to) noexcept;

/// One receive, with the sender and the size of each datagram in what came.
class RunReceive {
  public:
    explicit RunReceive(std::span<std::uint8_t> buffer) noexcept;
    RunReceive(const RunReceive&) = delete;
    RunReceive& operator=(const RunReceive&) = delete;
    ~RunReceive() = default;

    /// The bytes received, or -1 with the reason in errno.
    ssize_t operator()(int socket, int flags) noexcept;
    const sockaddr_in& source() const noexcept { return source_; }
    std::size_t datagram_size(std::size_t received) noexcept;

  private:
    sockaddr_in source_{};
    iovec part_;
    alignas(cmsghdr) std::array<unsigned char, CMSG_SPACE(sizeof(int))> control_;
    msghdr message_{};
};

}  // namespace tavistro::platform
