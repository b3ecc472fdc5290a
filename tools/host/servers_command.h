// `tavistro-host servers`: which servers can be reached from here.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>

namespace tavistro::host {

struct ServersOptions {
    std::uint32_t timeout_ms = 1000;            ///< how long answers are waited for
    std::optional<std::uint32_t> address = {};  ///< asked alone; else this host and the network
    std::uint16_t port = 28010;
    bool json = false;  ///< one object per line
};

/// Asks as the engine does when it starts, waits for the whole time-out, and lists every server
/// that answered. Returns the exit code: 0 when any did, 1 when none (then `errors` says who was
/// asked) or when the network cannot be used.
int list_servers(const ServersOptions& options, std::ostream& out, std::ostream& errors);

}  // namespace tavistro::host
