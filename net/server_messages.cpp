#include "net/server_messages.h"

#include "net/wire_layout.h"

namespace TavistroProtocol {

using wire::get;
using wire::put;

namespace {

std::vector<std::int32_t> get_list(std::span<const std::uint8_t> bytes, std::size_t offset,
                                   std::size_t count) {
    std::vector<std::int32_t> list(count);
    for (std::size_t i = 0; i < count; ++i) {
        list[i] = static_cast<std::int32_t>(get<std::uint32_t>(bytes, offset + 4 * i));
    }
    return list;
}

}  // namespace

Datagram encode_sync(std::uint32_t client_id, const SyncInfo& sync) {
    Datagram datagram(wire::sync_bytes);
    wire::put_header(datagram, MessageType::Sync, client_id);
    put(datagram, 16, sync.sequence);
    put(datagram, 20, sync.sample_rate);
    put(datagram, 24, sync.block_frames);
    put(datagram, 28, sync.server_frame_position);
    put(datagram, 36, sync.server_time_ns);
    return datagram;
}

Datagram encode_discover_reply(const DiscoverReply& reply) {
    Datagram datagram(wire::discover_reply_bytes);
    wire::put_header(datagram, MessageType::DiscoverReply, reply.client_id);
    put(datagram, 16, reply.nonce);
    put(datagram, 24, reply.port);
    put(datagram, 32, reply.version);
    put(datagram, 36, reply.capability);
    return datagram;
}

Datagram encode_pong(const Pong& pong) {
    Datagram datagram(wire::pong_bytes);
    wire::put_header(datagram, MessageType::Pong, pong.client_id);
    put(datagram, 16, pong.nonce);
    put(datagram, 24, pong.t1_ns);
    put(datagram, 32, pong.t2_ns);
    put(datagram, 40, pong.t3_ns);
    return datagram;
}

Decoded<Announce> decode_announce(std::span<const std::uint8_t> bytes) {
    const auto header = decode_header(bytes);
    if (!header) return {header.result};
    if (header.message.type != MessageType::Announce) return {DecodeResult::wrong_type};
    if (bytes.size() < wire::announce_fixed_bytes) return {DecodeResult::bad_length};
    const std::size_t inputs = get<std::uint16_t>(bytes, 16);
    const std::size_t outputs = get<std::uint16_t>(bytes, 18);
    if (bytes.size() != wire::announce_fixed_bytes + 4 * (inputs + outputs)) {
        return {DecodeResult::bad_length};
    }
    Announce announce;
    announce.client_id = header.message.client_id;
    announce.session_id = get<std::uint32_t>(bytes, 20);
    announce.input_latency_blocks = get<std::uint32_t>(bytes, 24);
    announce.output_latency_blocks = get<std::uint32_t>(bytes, 28);
    announce.driver_inputs = get_list(bytes, wire::announce_fixed_bytes, inputs);
    announce.driver_outputs = get_list(bytes, wire::announce_fixed_bytes + 4 * inputs, outputs);
    return {DecodeResult::valid, std::move(announce)};
}

Decoded<Discover> decode_discover(std::span<const std::uint8_t> bytes) {
    const DecodeResult result = decode_expected(bytes, MessageType::Discover, wire::discover_bytes);
    if (result != DecodeResult::valid) return {result};
    return {result, {get<std::uint32_t>(bytes, 12), get<std::uint64_t>(bytes, 16)}};
}

Decoded<Ping> decode_ping(std::span<const std::uint8_t> bytes) {
    const DecodeResult result = decode_expected(bytes, MessageType::Ping, wire::ping_bytes);
    if (result != DecodeResult::valid) return {result};
    return {result,
            {get<std::uint32_t>(bytes, 12), get<std::uint64_t>(bytes, 16),
             get<std::uint64_t>(bytes, 24)}};
}

bool is_leave(const Announce& announce) noexcept {
    return announce.driver_inputs.empty() && announce.driver_outputs.empty();
}

}  // namespace TavistroProtocol
