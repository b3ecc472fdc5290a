// Waiting for what other threads will make true.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace tavistro::test {

/// Polls until the condition holds. False when it does not within the limit of real time, which is
/// there to end a test that hangs and is no measure of speed.
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
