// Conversion between the engine's samples (32-bit float, full scale +-1.0) and the formats of ASIO
// drivers, one channel's buffer at a time. Pure functions; a driver's buffer needs no alignment.
//
// A format is named by its sample type code. An unknown code reads as silence, and is written as
// silence of four bytes a sample. The level of instructions changes no bit of the results; the
// processor must be able to run it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "common/simd.h"
#include "platform/realtime.h"

namespace tavistro {

/// False for a code that is not converted.
bool is_known_sample_type(std::uint32_t code) noexcept;

/// Name of the type as drivers' developers know it, "Other" for an unknown code.
const char* sample_type_name(std::uint32_t code) noexcept;

/// Bytes of one sample.
TAVISTRO_REALTIME std::size_t sample_size_bytes(std::uint32_t code) noexcept;

/// Reads destination.size() samples. Integers are divided by their largest positive value; results
/// outside +-1.0 are clamped. Little-endian 32-bit float is copied bit for bit.
TAVISTRO_REALTIME void samples_to_float(const void* driver_buffer, std::uint32_t code,
                                        std::span<float> destination,
                                        SimdLevel level = simd_level()) noexcept;

/// Writes source.size() samples, clamped to +-1.0; integers are truncated toward zero. NaN stays
/// NaN in a float format; an integer format takes the low bits of 0x80000000. Little-endian 32-bit
/// float is copied bit for bit.
TAVISTRO_REALTIME void samples_from_float(void* driver_buffer, std::uint32_t code,
                                          std::span<const float> source,
                                          SimdLevel level = simd_level()) noexcept;

/// Writes `frames` samples of silence.
TAVISTRO_REALTIME void write_silence(void* driver_buffer, std::uint32_t code,
                                     std::size_t frames) noexcept;

}  // namespace tavistro
