// The server's own clock, which may run off ours on purpose.
#pragma once

#include <cstdint>

namespace tavistro::server {

/// Converts between our nanosecond clock ("local") and the server's. Pure; not thread-safe.
class SkewedClock {
  public:
    /// Equal to ours, but for the offset and drift from `local_ns` on. An offset that would take
    /// the clock below one second is cut there: clocks are unsigned.
    SkewedClock(std::uint64_t local_ns, std::int64_t offset_ms, double drift_ppm) noexcept;

    /// Goes on from the present reading at another speed; the offset moves by the difference.
    void adjust(std::uint64_t local_ns, std::int64_t offset_ms, double drift_ppm) noexcept;

    std::uint64_t to_server(std::uint64_t local_ns) const noexcept;
    std::uint64_t to_local(std::uint64_t server_ns) const noexcept;

  private:
    void anchor(std::uint64_t local_ns, std::int64_t server_ns) noexcept;

    std::uint64_t anchor_local_ns_ = 0;
    std::uint64_t anchor_server_ns_ = 0;
    std::int64_t offset_ms_ = 0;
    double drift_ppm_ = 0;
};

}  // namespace tavistro::server
