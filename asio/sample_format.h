// Conversion between the engine's samples (32-bit float, full scale +-1.0) and the sample formats
// of ASIO drivers, for one channel buffer at a time. Pure functions; buffers need no alignment.
//
// Formats are identified by their sample type code. An unknown code reads as silence, and is
// written as silence with four bytes per sample. Results are bit-identical at every SIMD level; the
// processor must support the level.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "common/simd.h"
#include "platform/realtime.h"

namespace tavistro {

/// False for a code without a conversion.
bool is_known_sample_type(std::uint32_t code) noexcept;

/// Usual name of the sample type; "Other" for an unknown code.
const char* sample_type_name(std::uint32_t code) noexcept;

/// Bytes of one sample.
TAVISTRO_REALTIME std::size_t sample_size_bytes(std::uint32_t code) noexcept;

/// Reads destination.size() samples. Divides integers by their largest positive value and clamps to
/// +-1.0. Little-endian 32-bit float is copied bit-exactly.
TAVISTRO_REALTIME void samples_to_float(const void* driver_buffer, std::uint32_t code,
                                        std::span<float> destination,
                                        SimdLevel level = simd_level()) noexcept;

/// Writes source.size() samples, clamped to +-1.0; integers are truncated toward zero. NaN stays
/// NaN in a float format and becomes the low bits of 0x80000000 in an integer format.
/// Little-endian 32-bit float is copied bit-exactly.
TAVISTRO_REALTIME void samples_from_float(void* driver_buffer, std::uint32_t code,
                                          std::span<const float> source,
                                          SimdLevel level = simd_level()) noexcept;

/// Writes `frames` samples of silence.
TAVISTRO_REALTIME void write_silence(void* driver_buffer, std::uint32_t code,
                                     std::size_t frames) noexcept;

}  // namespace tavistro
