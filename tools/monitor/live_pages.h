// The newest readings as the pages of an HTTP server.
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

#include "tools/monitor/http_server.h"
#include "tools/monitor/sample.h"

namespace tavistro::monitor {

/// Any thread.
class LivePages {
  public:
    /// A reading of all clients; the last 600 are kept.
    void add(const std::vector<Sample>& samples);
    std::optional<HttpPage> page(std::string_view target) const;

  private:
    std::vector<Sample> newest() const;
    std::vector<Sample> after(std::int64_t time_ms) const;

    mutable std::mutex mutex_;
    std::deque<std::vector<Sample>> readings_;
};

}  // namespace tavistro::monitor
