// What tavistro-server prints: lines for people, or JSON objects for machines.
#pragma once

#include <string>

#include "tools/server/server_snapshot.h"

namespace tavistro::server {

/// What the server says of itself, in one of two languages. Texts end without a line end.
class Report {
  public:
    /// `json`: one object per line, with a "type".
    explicit Report(bool json) : json_(json) {}

    std::string listening(std::uint16_t port, const StreamFormat& format) const;
    std::string joined(const ClientSnapshot& client) const;
    /// Of a client that left or fell silent.
    std::string left(const ClientSnapshot& client) const;
    /// For people: what happened per second since `before`, and what counts so far. For machines:
    /// everything that was counted so far.
    std::string status(const ServerSnapshot& now, const ServerSnapshot& before) const;
    /// On the whole run; for people some lines, one per client and measure.
    std::string summary(const ServerSnapshot& total) const;

  private:
    bool json_;
};

}  // namespace tavistro::server
