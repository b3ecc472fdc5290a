// Driver buffers, sample by sample: enough to loop a channel of one type to one of another.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace tavistro::test {

using RawSamples = std::span<std::uint8_t>;

/// Bytes of one sample; 4 for types that are not known.
std::size_t sample_bytes(std::int32_t type) noexcept;

/// Every sample set to a value within +-1.
void fill_samples(RawSamples samples, std::int32_t type, double value) noexcept;

/// As many samples as `to` holds. Bytes are copied when the types are equal, else values are
/// converted, rounded to the nearest.
void copy_samples(std::span<const std::uint8_t> from, std::int32_t from_type, RawSamples to,
                  std::int32_t to_type) noexcept;

}  // namespace tavistro::test
