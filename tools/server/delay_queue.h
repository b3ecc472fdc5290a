// Datagrams that a bad network holds up, in the order in which they come out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <utility>

#include "net/protocol.h"
#include "platform/udp_socket.h"

namespace tavistro::server {

struct RoutedDatagram {
    enum class Direction { to_client, from_client };

    Direction direction{};
    platform::Ipv4Endpoint client{};
    TavistroProtocol::Datagram bytes{};
};

/// Datagrams by due time, those of equal time in the order they came. Any thread; locks briefly.
class DelayQueue {
  public:
    /// More than a second of a large stream: what does not fit is lost, as in a network.
    static constexpr std::size_t capacity = 20000;

    void push(std::uint64_t due_ns, RoutedDatagram datagram) {
        const std::lock_guard lock(mutex_);
        if (queue_.size() < capacity) queue_.emplace(due_ns, std::move(datagram));
    }

    void clear() {
        const std::lock_guard lock(mutex_);
        queue_.clear();
    }

    /// Due time of the first datagram.
    std::optional<std::uint64_t> next_due_ns() const {
        const std::lock_guard lock(mutex_);
        return queue_.empty() ? std::nullopt : std::optional(queue_.begin()->first);
    }

    /// The first datagram, when it is due.
    std::optional<RoutedDatagram> pop_due(std::uint64_t now_ns) {
        const std::lock_guard lock(mutex_);
        if (queue_.empty() || queue_.begin()->first > now_ns) return {};
        auto first = queue_.extract(queue_.begin());
        return std::optional(std::move(first.mapped()));
    }

  private:
    mutable std::mutex mutex_;
    std::multimap<std::uint64_t, RoutedDatagram> queue_;
};

}  // namespace tavistro::server
