// Passes the input to every decoder: unchanged, with a valid header, and as values of valid
// messages before and after one byte changes. A decoded message must encode to the same bytes,
// except those that no decoder reads. Audio fragments also go to the reassembly.
#include <initializer_list>
#include <utility>

#include "fuzz/fuzz.h"
#include "net/reassembly.h"
#include "net/server_messages.h"
#include "net/wire_layout.h"

namespace {

using namespace TavistroProtocol;
using Bytes = std::span<const std::uint8_t>;
using Ranges = std::initializer_list<std::pair<std::size_t, std::size_t>>;  // offset, count

bool same_without(Ranges unread, Bytes bytes, const Datagram& encoded) {
    Datagram expected(bytes.begin(), bytes.end());
    for (const auto& [offset, count] : unread)
        for (std::size_t i = 0; i < count; ++i)
            expected.at(offset + i) = 0;
    return encoded == expected;
}

tavistro::Reassembly reassembly;  // for the 4-channel fragments of one input

bool check_audio(Bytes bytes) {
    const auto decoded = decode_audio(bytes);
    if (!decoded) return false;
    const AudioFragment& f = decoded.message;
    REQUIRE(f.first_channel + f.channel_count <= f.channels);
    REQUIRE(f.first_frame + f.frame_count <= f.frames);
    REQUIRE(f.payload.size() == 4 * f.sample_count());
    CompletedOutputBlock block;
    if (reassembly.offer(f, block)) REQUIRE(block.samples.size() == 4U * f.frames);
    return true;
}

/// Returns the number of decoders that accept the bytes.
int check(Bytes bytes) {
    int taken = 0;
    const auto header = decode_header(bytes);
    const std::uint32_t client_id = header.message.client_id;
    REQUIRE(!header || (header.message.length == bytes.size() && client_id != 0));
    const auto round_trip = [&](MessageType type, const auto& decoded, auto encode, Ranges unread) {
        if (!header) REQUIRE(decoded.result == header.result);
        if (!decoded) return;
        ++taken;
        REQUIRE(header.message.type == type);
        REQUIRE(same_without(unread, bytes, encode(decoded.message)));
    };
    round_trip(MessageType::Announce, decode_announce(bytes), encode_announce, {});
    round_trip(MessageType::Discover, decode_discover(bytes), encode_discover, {{24, 8}});
    round_trip(MessageType::DiscoverReply, decode_discover_reply(bytes), encode_discover_reply,
               {{26, 2}, {28, 4}, {44, 4}});
    round_trip(MessageType::Ping, decode_ping(bytes), encode_ping, {});
    round_trip(MessageType::Pong, decode_pong(bytes), encode_pong, {});
    round_trip(MessageType::Sync, decode_sync(bytes),
               [&](const SyncInfo& sync) { return encode_sync(client_id, sync); }, {{26, 2}});
    taken += check_audio(bytes);
    return taken;
}

DatagramList sound_messages(tavistro::fuzz::Input& in) {
    const std::uint32_t client_id = 1U + in.take();
    const auto nonce = in.take<std::uint64_t>(), time = in.take<std::uint64_t>();
    const auto number = in.take<std::uint32_t>();
    const std::uint16_t frames = 1U + in.below(9), channels = 1U + in.below(9);
    const auto samples = in.samples(std::size_t{frames} * channels);
    DatagramList list;
    encode_audio_block({client_id, number, number, frames, channels, samples}, 52U + in.below(100),
                       list);
    std::vector<std::int32_t> inputs(in.below(9)), outputs(channels, in.take());
    list.push_back(encode_announce({client_id, number, 6, channels, inputs, outputs}));
    list.push_back(encode_discover({client_id, nonce}));
    list.push_back(encode_discover_reply({client_id, nonce, frames}));
    list.push_back(encode_ping({client_id, nonce, time}));
    list.push_back(encode_pong({client_id, nonce, time, nonce, time}));
    list.push_back(encode_sync(client_id, {number, number, frames, nonce, time}));
    return list;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    reassembly.reset(4);
    check({data, size});
    tavistro::fuzz::Input in(data, size);
    for (Datagram& datagram : sound_messages(in)) {
        REQUIRE(check(datagram) == 1);
        datagram[in.below(256) % datagram.size()] ^= in.take();
        check(datagram);
    }
    if (size < wire::header_bytes) return 0;
    Datagram fitting(data, data + size);
    wire::put_header(fitting, static_cast<MessageType>(data[6] % 9), data[12]);
    check(fitting);
    return 0;
}
