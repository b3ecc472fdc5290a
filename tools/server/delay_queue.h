// Datagrams that the simulated network delays, sorted by the time of their release.
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

/// Datagrams sorted by due time; those with equal times keep their order. Thread-safe; locks
/// briefly.
class DelayQueue {
  public:
    /// More than a second of a large stream. Excess datagrams are dropped, as a full network queue
    /// would drop them.
    static constexpr std::size_t capacity = 20000;

    void push(std::uint64_t due_ns, RoutedDatagram datagram) {
        const std::lock_guard lock(mutex_);
        if (queue_.size() < capacity) queue_.emplace(due_ns, std::move(datagram));
    }

    void clear() {
        const std::lock_guard lock(mutex_);
        queue_.clear();
    }

    /// Due time of the earliest datagram.
    std::optional<std::uint64_t> next_due_ns() const {
        const std::lock_guard lock(mutex_);
        return queue_.empty() ? std::nullopt : std::optional(queue_.begin()->first);
    }

    /// Removes and returns the earliest datagram if it is due.
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
