// Measures how late this computer wakes a thread that sleeps: what delays a thread of this process
// delays those of an engine beside it, unless they have a higher priority.
#pragma once

#include <atomic>
#include <cstdint>
#include <stop_token>
#include <thread>

namespace tavistro::monitor {

class HostProbe {
  public:
    HostProbe();

    /// Longest delay since the last call, in microseconds.
    std::uint32_t take_longest_us() noexcept { return longest_us_.exchange(0); }

  private:
    void measure(const std::stop_token& stop);

    std::atomic<std::uint32_t> longest_us_{0};
    std::jthread thread_;
};

}  // namespace tavistro::monitor
