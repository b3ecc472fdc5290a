// Keeps the latest blocks of the bus, for callers that compare them sample by sample.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <utility>
#include <vector>

#include "tools/server/block_schedule.h"
#include "tools/server/mix_bus.h"
#include "tools/server/server_snapshot.h"

namespace tavistro::server {

/// Disabled at first. Thread-safe; locks briefly.
class BusHistory {
  public:
    /// Keeps the latest `blocks` blocks from now on; 0 disables the history.
    void enable(std::size_t blocks) {
        const std::lock_guard lock(mutex_);
        capacity_ = blocks;
        while (blocks_.size() > capacity_)
            blocks_.pop_front();
    }

    void add(const BlockStamp& stamp, const MixBus& bus) {
        const std::lock_guard lock(mutex_);
        if (capacity_ == 0) return;
        if (blocks_.size() == capacity_) blocks_.pop_front();
        blocks_.emplace_back(stamp, bus);
    }

    /// The blocks of one channel, oldest first.
    std::vector<HistoryBlock> channel(std::size_t index) const {
        const std::lock_guard lock(mutex_);
        std::vector<HistoryBlock> history;
        for (const auto& [stamp, bus] : blocks_) {
            const auto samples = bus.channel(index);
            history.push_back({stamp.sequence, stamp.time_ns, {samples.begin(), samples.end()}});
        }
        return history;
    }

  private:
    mutable std::mutex mutex_;
    std::size_t capacity_ = 0;
    std::deque<std::pair<BlockStamp, MixBus>> blocks_;
};

}  // namespace tavistro::server
