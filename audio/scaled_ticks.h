// Performance counter ticks in other units, exact however many they are.
#pragma once

#include <cstdint>

namespace tavistro {

/// ticks * per_second / frequency, rounded down, where that product alone would be too large: at
/// 1 GHz it is after 106 days of milliseconds. `ticks` is not below 0, `frequency` above 0.
constexpr std::int64_t scaled_ticks(std::int64_t ticks, std::int64_t per_second,
                                    std::int64_t frequency) noexcept {
    return ticks / frequency * per_second + ticks % frequency * per_second / frequency;
}

}  // namespace tavistro
