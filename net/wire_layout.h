// Fixed-offset little-endian fields and the common header, for the client and server codecs only;
// all other code includes protocol.h.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <span>

#include "net/protocol.h"

namespace TavistroProtocol::wire {

inline constexpr std::uint32_t magic = 0x4F535654;  // "TVSO" in wire order
inline constexpr std::size_t header_bytes = 16;

// Message lengths. Announce and audio have data of variable length after their fixed part.
inline constexpr std::size_t announce_fixed_bytes = 32;
inline constexpr std::size_t audio_fixed_bytes = 48;
inline constexpr std::size_t sync_bytes = 44;
inline constexpr std::size_t discover_bytes = 32;
inline constexpr std::size_t discover_reply_bytes = 48;
inline constexpr std::size_t ping_bytes = 32;
inline constexpr std::size_t pong_bytes = 48;

/// Reads the unsigned field of T's width at `offset`. Precondition: it lies within `bytes`.
template <typename T>
T get(std::span<const std::uint8_t> bytes, std::size_t offset) {
    assert(offset + sizeof(T) <= bytes.size());
    std::uint64_t value = 0;
    for (std::size_t i = sizeof(T); i-- > 0;)
        value = (value << 8) | bytes[offset + i];
    return static_cast<T>(value);
}

/// Writes `value` at `offset`. Precondition: it lies within `bytes`.
template <typename T>
void put(std::span<std::uint8_t> bytes, std::size_t offset, T value) {
    assert(offset + sizeof(T) <= bytes.size());
    for (std::size_t i = 0; i < sizeof(T); ++i) {
        bytes[offset + i] = static_cast<std::uint8_t>(static_cast<std::uint64_t>(value) >> (8 * i));
    }
}

/// Writes the common header of a message that fills `datagram`.
inline void put_header(std::span<std::uint8_t> datagram, MessageType type,
                       std::uint32_t client_id) {
    put(datagram, 0, magic);
    put(datagram, 4, protocol_version);
    put(datagram, 6, static_cast<std::uint16_t>(type));
    put(datagram, 8, static_cast<std::uint32_t>(datagram.size()));
    put(datagram, 12, client_id);
}

}  // namespace TavistroProtocol::wire
