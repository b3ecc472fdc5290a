// Numbers that identify a run, a ping or a discovery of this client.
#pragma once

#include <cstdint>

#include "platform/clock.h"

namespace tavistro {

/// Returns a number that differs between clients, and between calls if the clocks have advanced.
/// Not a secret. Any thread.
inline std::uint64_t fresh_nonce(std::uint32_t client_id) noexcept {
    const std::uint64_t clock_ns = platform::nanosecond_clock();
    const std::uint64_t tick_ms = platform::millisecond_tick();
    return (((static_cast<std::uint64_t>(client_id) << 31) ^ tick_ms) << 1) ^ clock_ns;
}

/// The same, folded to 32 bits and never 0.
inline std::uint32_t fresh_session_id(std::uint32_t client_id) noexcept {
    const std::uint64_t nonce = fresh_nonce(client_id);
    const std::uint32_t folded =
        static_cast<std::uint32_t>(nonce) ^ static_cast<std::uint32_t>(nonce >> 32);
    return folded == 0 ? 1 : folded;
}

}  // namespace tavistro
