// An engine on the test driver.
#pragma once

#include <functional>
#include <string>

#include "driver/driver_remote.h"
#include "scenarios/rig.h"
#include "support/movable_clock.h"

namespace tavistro::test {

/// Settings for a ConfigFile.
inline const std::string on_test_driver =
    "loopback_device = 0\n[asio]\ndriver_name = Tavistro Test Driver\n";

/// Like eventually(), but time passes about ten times as fast for engine and server. The driver's
/// clock is its own.
inline bool soon(const std::function<bool()>& condition) {
    constexpr int polls_per_step = 20;  // of about 2 ms each
    constexpr std::uint64_t step_ms = 400;
    int polls = 0;
    return eventually([&] {
        if (condition()) return true;
        if (++polls % polls_per_step == 0) advance_clock_ms(step_ms);
        return false;
    });
}

}  // namespace tavistro::test
