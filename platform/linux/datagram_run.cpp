#include "platform/linux/datagram_run.h"

#include <netinet/udp.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tavistro::platform {

namespace {

constexpr std::size_t most_in_a_run = 64;  // UDP_MAX_SEGMENTS of the kernels that have fewest

}  // namespace

std::size_t run_length(std::span<const DatagramBytes> datagrams) noexcept {
    const std::size_t size = datagrams.front().size();
    std::size_t bytes = size;
    std::size_t length = 1;
    while (length < std::min(datagrams.size(), most_in_a_run)) {
        const std::size_t next = datagrams[length].size();
        bytes += next;
        if (next > size || bytes > max_datagram_bytes) break;
        ++length;
        if (next < size) break;
    }
    return length;
}

ssize_t send_as_one(int socket, std::span<const DatagramBytes> run, sockaddr_in to) noexcept {
    std::array<iovec, most_in_a_run> parts;
    std::transform(run.begin(), run.end(), parts.begin(), [](const DatagramBytes& datagram) {
        return iovec{const_cast<std::uint8_t*>(datagram.data()), datagram.size()};
    });
    const auto datagram_size = static_cast<std::uint16_t>(run.front().size());
    alignas(cmsghdr) std::array<unsigned char, CMSG_SPACE(sizeof datagram_size)> control{};
    msghdr message{};
    message.msg_name = &to;
    message.msg_namelen = sizeof to;
    message.msg_iov = parts.data();
    message.msg_iovlen = run.size();
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_len = CMSG_LEN(sizeof datagram_size);
    header->cmsg_level = SOL_UDP;
    header->cmsg_type = UDP_SEGMENT;
    std::memcpy(CMSG_DATA(header), &datagram_size, sizeof datagram_size);
    ssize_t sent = 0;
    do {
        sent = ::sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    return sent;
}

RunReceive::RunReceive(std::span<std::uint8_t> buffer) noexcept
    : part_{buffer.data(), buffer.size()} {
    message_.msg_iov = &part_;
    message_.msg_iovlen = 1;
}

ssize_t RunReceive::operator()(int socket, int flags) noexcept {
    message_.msg_name = &source_;
    message_.msg_namelen = sizeof source_;
    message_.msg_control = control_.data();
    message_.msg_controllen = control_.size();
    return ::recvmsg(socket, &message_, flags);
}

std::size_t RunReceive::datagram_size(std::size_t received) noexcept {
    const cmsghdr* const header = CMSG_FIRSTHDR(&message_);
    if (header == nullptr || header->cmsg_level != SOL_UDP || header->cmsg_type != UDP_GRO)
        return received;
    int size = 0;
    std::memcpy(&size, CMSG_DATA(header), sizeof size);
    return size > 0 ? static_cast<std::size_t>(size) : received;
}

}  // namespace tavistro::platform
