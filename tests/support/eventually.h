// Waits for a condition that other threads make true.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace tavistro::test {

/// Polls until the condition holds. Returns false after `limit` of real time, which only ends a
/// hanging test and is no performance requirement.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::seconds limit = std::chrono::seconds(30)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace tavistro::test
