// Sample access to driver buffers, to loop channels back between sample types.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace tavistro::test {

using RawSamples = std::span<std::uint8_t>;

/// Bytes per sample; 4 for unknown types.
std::size_t sample_bytes(std::int32_t type) noexcept;

/// Sets every sample to a value within +-1.
void fill_samples(RawSamples samples, std::int32_t type, double value) noexcept;

/// Copies as many samples as `to` holds. Copies bytes if the types are equal; otherwise converts
/// and rounds to nearest.
void copy_samples(std::span<const std::uint8_t> from, std::int32_t from_type, RawSamples to,
                  std::int32_t to_type) noexcept;

}  // namespace tavistro::test
