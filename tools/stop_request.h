// How SIGINT and SIGTERM end a program.
#pragma once

#include <atomic>
#include <csignal>

namespace tavistro {

/// Set by the first signal: the program ends cleanly as soon as it can.
inline std::atomic<bool> stop_requested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler may set it");

/// From now on the first signal sets stop_requested and a second one ends the process at once. For
/// code that looks at stop_requested often; elsewhere the first signal may end the process.
inline void take_stop_signals() {
    static constexpr auto request_stop = [](int) {
        stop_requested = true;
        std::signal(SIGINT, SIG_DFL);
        std::signal(SIGTERM, SIG_DFL);
    };
    stop_requested = false;
    std::signal(SIGINT, request_stop);
    std::signal(SIGTERM, request_stop);
}

}  // namespace tavistro
