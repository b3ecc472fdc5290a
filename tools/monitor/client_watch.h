// Keeps an eye on the statistics block of one client_id, through starts, stops and crashes.
#pragma once

#include "tools/host/stats_reader.h"
#include "tools/monitor/sample.h"

namespace tavistro::monitor {

/// Not thread-safe.
class ClientWatch {
  public:
    explicit ClientWatch(std::uint32_t client_id) : client_id_(client_id) {}

    std::uint32_t client_id() const noexcept { return client_id_; }

    /// Reads the block as it is now. `time_ms` is milliseconds since 1970 and must not go back by
    /// much: an engine that has not changed its block for five seconds counts as silent, and one
    /// whose process has died at once.
    Sample look(std::int64_t time_ms);

  private:
    std::optional<tavistro_stats_block> read_newest();

    std::uint32_t client_id_;
    host::StatsReader reader_;
    std::optional<tavistro_stats_block> last_;
    std::int64_t last_change_ms_ = 0;
};

}  // namespace tavistro::monitor
