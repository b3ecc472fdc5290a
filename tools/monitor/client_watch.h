// Keeps an eye on the statistics block of one client_id, through starts, stops and crashes.
#pragma once

#include "tools/monitor/sample.h"
#include "tools/monitor/tally.h"
#include "tools/readings/stats_reader.h"

namespace tavistro::monitor {

/// Not thread-safe; reads no clock. Times are of one monotonic clock, in microseconds.
class ClientWatch {
  public:
    explicit ClientWatch(std::uint32_t client_id) : client_id_(client_id) {}

    /// Adds what the engine has published to the totals: one read of the block, for every few
    /// milliseconds. A few times a second it looks for a new block, too.
    void glance(std::int64_t now_us, std::int64_t overslept_us);

    /// When to glance next.
    std::int64_t next_glance_us() const noexcept;

    /// A sample without time_ms and host_late_us. An engine that has not changed its block for five
    /// seconds counts as silent, and one whose process has died at once.
    Sample look(std::int64_t now_us);

  private:
    void check(std::int64_t now_us, std::int64_t overslept_us);
    std::optional<tavistro_stats_block> read_newest();

    std::uint32_t client_id_;
    readings::StatsReader reader_;
    Presence presence_ = Presence::absent;  ///< as of the last check
    std::optional<tavistro_stats_block> last_;
    std::int64_t last_change_us_ = 0;
    std::int64_t last_check_us_ = 0;
    Tally tally_;
};

}  // namespace tavistro::monitor
