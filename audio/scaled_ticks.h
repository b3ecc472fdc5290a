// Exact conversion of performance counter ticks to other units.
#pragma once

#include <cstdint>

namespace tavistro {

/// ticks * per_second / frequency, rounded down, without overflow of the product: at 1 GHz and for
/// milliseconds it would overflow after 106 days. Precondition: ticks >= 0, frequency > 0.
constexpr std::int64_t scaled_ticks(std::int64_t ticks, std::int64_t per_second,
                                    std::int64_t frequency) noexcept {
    return ticks / frequency * per_second + ticks % frequency * per_second / frequency;
}

}  // namespace tavistro
