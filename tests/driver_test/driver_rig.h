// An engine on the test driver, and a server for it.
#pragma once

#include <string>

#include "driver/driver_remote.h"
#include "scenarios/rig.h"

namespace tavistro::test {

/// Settings for a ConfigFile: the test driver, then `more` in section [asio].
std::string on_test_driver(const std::string& more = {});

/// Like eventually(), but time passes about ten times as fast for engine and server. The driver's
/// clock is its own.
bool soon(const std::function<bool()>& condition);

/// What a host shows first.
struct Shown {
    std::uint32_t level;
    std::uint32_t category;
    std::uint32_t message;
    friend bool operator==(const Shown&, const Shown&) = default;
};
Shown shown(const Engine& engine);

}  // namespace tavistro::test
