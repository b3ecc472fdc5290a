// The messages that only a server sends or reads, for servers and tests; not part of the engine.
// Servers send audio with encode_audio_block.
#pragma once

#include <cstdint>
#include <span>

#include "net/protocol.h"

namespace TavistroProtocol {

Datagram encode_sync(std::uint32_t client_id, const SyncInfo& sync);
Datagram encode_discover_reply(const DiscoverReply& reply);
Datagram encode_pong(const Pong& pong);

/// bad_length if the lists do not fill the datagram exactly.
Decoded<Announce> decode_announce(std::span<const std::uint8_t> bytes);
Decoded<Discover> decode_discover(std::span<const std::uint8_t> bytes);
Decoded<Ping> decode_ping(std::span<const std::uint8_t> bytes);

/// True for an announce without channels.
bool is_leave(const Announce& announce) noexcept;

}  // namespace TavistroProtocol
