// What tavistro-server prints: lines for people, or JSON objects for machines.
#pragma once

#include <string>

#include "tools/server/server_snapshot.h"

namespace tavistro::server {

/// One line on the time since `before`, without a line end.
std::string status_line(const ServerSnapshot& now, const ServerSnapshot& before);
/// A few lines on the whole run, one per client and measure.
std::string summary_text(const ServerSnapshot& total);

/// {"type":"listening","port":...}
std::string listening_json(std::uint16_t port, const StreamFormat& format);
/// All counters, {"type":"status",...} or {"type":"summary",...}; on one line.
std::string snapshot_json(const char* type, const ServerSnapshot& snapshot);

}  // namespace tavistro::server
