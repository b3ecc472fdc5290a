// The output of tavistro-server: text for people or JSON objects for programs.
#pragma once

#include <string>

#include "tools/server/server_snapshot.h"

namespace tavistro::server {

/// Formats all output as text or as JSON. Results may have several lines; the last has no line end.
class Report {
  public:
    /// `json`: one object per line, with a "type".
    explicit Report(bool json) : json_(json) {}

    /// `port`: the one in use, where the options leave the choice to the system.
    std::string listening(std::uint16_t port, const ServerOptions& options) const;
    std::string joined(const ClientSnapshot& client) const;
    /// For a client that left or timed out.
    std::string left(const ClientSnapshot& client) const;
    /// Text: data rates since `before`, input counters and measurements since the start. JSON: all
    /// counters since the start.
    std::string status(const ServerSnapshot& now, const ServerSnapshot& before) const;
    /// Totals of the whole run.
    std::string summary(const ServerSnapshot& total) const;

  private:
    bool json_;
};

}  // namespace tavistro::server
