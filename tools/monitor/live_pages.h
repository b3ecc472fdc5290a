// What the monitor has seen, as the pages of an HTTP server.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/http/http_server.h"
#include "tools/monitor/account.h"
#include "tools/monitor/history.h"
#include "tools/monitor/sample.h"

namespace tavistro::monitor {

/// Any thread.
class LivePages {
  public:
    LivePages();
    /// A reading of all clients.
    void add(const std::vector<Sample>& samples);
    std::optional<http::HttpPage> page(std::string_view target) const;

  private:
    /// The newest samples, and an account of the last two minutes of each engine among them.
    std::pair<std::vector<Sample>, Accounts> judged() const;
    /// Nothing for an engine that was never seen.
    std::optional<std::string> engine(std::uint32_t client_id, std::string_view what) const;

    std::int64_t start_ms_;
    mutable std::mutex mutex_;
    std::vector<Sample> newest_;
    std::map<std::uint32_t, History> histories_;  ///< by client_id
};

}  // namespace tavistro::monitor
