// The part of the sockets that is the same on every system.
#include "platform/udp_socket.h"

#include <array>
#include <limits>

#include "system_socket.h"  // of linux/ or windows/

namespace tavistro::platform {
namespace {

bool set_option(std::intptr_t handle, int option, int value) noexcept {
    return setsockopt(system_socket(handle), SOL_SOCKET, option,
                      reinterpret_cast<const char*>(&value), sizeof value) == 0;
}

void request_buffer(std::intptr_t handle, int option, std::uint32_t bytes) noexcept {
    if (bytes == 0) return;
    constexpr std::uint32_t most = std::numeric_limits<int>::max();
    set_option(handle, option, static_cast<int>(bytes < most ? bytes : most));
}

bool bind_to(std::intptr_t handle, const Ipv4Endpoint& endpoint) noexcept {
    const sockaddr_in address = to_system(endpoint);
    return ::bind(system_socket(handle), reinterpret_cast<const sockaddr*>(&address),
                  sizeof address) == 0;
}

}  // namespace

std::optional<std::uint32_t> parse_ipv4(std::string_view text) {
    in_addr address{};
    const std::string terminated(text);
    if (terminated.size() != std::char_traits<char>::length(terminated.c_str())) return {};
    if (inet_pton(AF_INET, terminated.c_str(), &address) != 1) return {};
    return ntohl(address.s_addr);
}

std::string format_ipv4(std::uint32_t address) {
    in_addr system{};
    system.s_addr = htonl(address);
    std::array<char, INET_ADDRSTRLEN> text{};
    return inet_ntop(AF_INET, &system, text.data(), text.size());
}

bool UdpSocket::open(const SocketOptions& options) noexcept {
    release();
    handle_ = new_system_socket();
    if (handle_ == -1) return false;
    request_buffer(handle_, SO_RCVBUF, options.recv_buffer_bytes);
    request_buffer(handle_, SO_SNDBUF, options.send_buffer_bytes);
    if (!prepare() || !bind_to(handle_, options.bind)) {
        release();
        return false;
    }
    receive_timeout_ms_ = 0;
    winding_down_ = false;
    open_.store(true, std::memory_order_release);
    return true;
}

Ipv4Endpoint UdpSocket::local_endpoint() const noexcept {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (!is_open() ||
        getsockname(system_socket(handle_), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        return {};
    }
    return from_system(address);
}

bool UdpSocket::set_receive_timeout(std::uint32_t ms) noexcept {
    if (!is_open()) return false;
    receive_timeout_ms_ = ms;
    return true;
}

bool UdpSocket::enable_broadcast() noexcept {
    return is_open() && set_option(handle_, SO_BROADCAST, 1);
}

// The send itself never blocks: a wait inside the system could not be ended without closing the
// socket, and the leave message has to be sent after that.
bool UdpSocket::wait_for_room() noexcept {
    if (winding_down_.load(std::memory_order_acquire) || !is_open()) return false;
    constexpr int room_slice_ms = 20;
    wait_until_writable(handle_, room_slice_ms);
    return true;
}

bool UdpSocket::send_to(DatagramBytes datagram, const Ipv4Endpoint& to) noexcept {
    if (datagram.empty() || datagram.size() > max_datagram_bytes || !is_open()) return false;
    const sockaddr_in address = to_system(to);
    std::ptrdiff_t sent = 0;
    do {
        sent = send_now(handle_, datagram, address);
    } while (sent < 0 && lacked_room() && wait_for_room());
    return sent == static_cast<std::ptrdiff_t>(datagram.size());
}

void UdpSocket::close() noexcept {
    if (open_.exchange(false, std::memory_order_acq_rel)) end_waits();
}

void UdpSocket::release() noexcept {
    close();
    if (handle_ != -1) close_system_socket(handle_);
    handle_ = -1;
    release_events();
}

}  // namespace tavistro::platform
