// The server's clock, with an optional offset and drift against the local clock.
#pragma once

#include <cstdint>

namespace tavistro::server {

/// Converts between the local nanosecond clock and the server's clock. Reads no clock; not
/// thread-safe.
class SkewedClock {
  public:
    /// The offset applies at `local_ns`, the drift from then on. An offset never sets the clock
    /// below one second, because clock values are unsigned.
    SkewedClock(std::uint64_t local_ns, std::int64_t offset_ms, double drift_ppm) noexcept;

    /// Continues from the current value with the new drift, moved by the change of the offset.
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
