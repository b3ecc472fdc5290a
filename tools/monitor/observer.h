// Looks at the statistics blocks of all engines that are watched, every few milliseconds, in a
// thread of its own.
//
// The thread also measures how late this computer wakes it: what delays a thread of this process
// delays those of an engine beside it, unless they have a higher priority.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <stop_token>
#include <thread>
#include <vector>

#include "tools/monitor/client_watch.h"

namespace tavistro::monitor {

/// Any thread.
class Observer {
  public:
    /// Without client_ids every engine of this computer is watched, also those that start later.
    explicit Observer(const std::vector<std::uint32_t>& client_ids);

    /// A sample of every client as it is now, in the order of the client_ids. Of clients that were
    /// not named there is none before their first run.
    std::vector<Sample> look();

  private:
    /// Adds what engines have started since.
    void find_engines();
    void observe(const std::stop_token& stop);

    const bool finds_engines_;
    std::mutex mutex_;
    std::map<std::uint32_t, ClientWatch> watches_;
    std::uint32_t longest_late_us_ = 0;  ///< since the last look()
    std::jthread thread_;                ///< ends before what it uses
};

}  // namespace tavistro::monitor
