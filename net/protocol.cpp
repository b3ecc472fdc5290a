#include "net/protocol.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <cstring>
#include <limits>

#include "net/wire_layout.h"

namespace TavistroProtocol {

using wire::get;
using wire::put;

namespace {

void put_list(Datagram& datagram, std::size_t offset, const std::vector<std::int32_t>& list) {
    for (const std::int32_t entry : list) {
        put(datagram, offset, static_cast<std::uint32_t>(entry));
        offset += 4;
    }
}

/// How a block is split into fragments.
struct FragmentPlan {
    std::uint64_t channels_per_fragment;
    std::uint64_t frames_per_fragment;
    std::uint64_t fragments_per_channel;  ///< 1 if whole channels fit
    std::uint64_t fragment_count;
};

FragmentPlan plan_fragments(std::uint64_t frames, std::uint64_t channels,
                            std::uint64_t samples_per_fragment) {
    if (frames <= samples_per_fragment) {
        const std::uint64_t group = samples_per_fragment / frames;
        return {group, frames, 1, (channels + group - 1) / group};
    }
    const std::uint64_t runs = (frames + samples_per_fragment - 1) / samples_per_fragment;
    return {1, samples_per_fragment, runs, runs * channels};
}

void encode_fragment(const AudioBlockView& block, const FragmentPlan& plan, std::uint64_t index,
                     Datagram& datagram) {
    const std::uint64_t first_channel =
        index / plan.fragments_per_channel * plan.channels_per_fragment;
    const std::uint64_t first_frame = index % plan.fragments_per_channel * plan.frames_per_fragment;
    assert(first_channel < block.channels && first_frame < block.frames);
    const std::uint64_t channel_count =
        std::min(block.channels - first_channel, plan.channels_per_fragment);
    const std::uint64_t frame_count =
        std::min(block.frames - first_frame, plan.frames_per_fragment);
    const std::size_t samples = static_cast<std::size_t>(channel_count * frame_count);

    datagram.resize(wire::audio_fixed_bytes + 4 * samples);
    wire::put_header(datagram, MessageType::Audio, block.client_id);
    put(datagram, 16, block.sequence);
    put(datagram, 20, block.sample_rate);
    put(datagram, 24, block.frames);
    put(datagram, 26, block.channels);
    put(datagram, 28, static_cast<std::uint16_t>(first_channel));
    put(datagram, 30, static_cast<std::uint16_t>(channel_count));
    put(datagram, 32, static_cast<std::uint16_t>(first_frame));
    put(datagram, 34, static_cast<std::uint16_t>(frame_count));
    put(datagram, 36, static_cast<std::uint16_t>(index));
    put(datagram, 38, static_cast<std::uint16_t>(plan.fragment_count));
    put(datagram, 40, std::uint64_t{0});
    // Contiguous in the block: whole channels, or a run of frames within one channel.
    write_samples(
        block.samples.subspan(static_cast<std::size_t>(first_channel * block.frames + first_frame),
                              samples),
        std::span(datagram).subspan(wire::audio_fixed_bytes));
}

// Separate from decode_header: a result with the header's fields would be returned in memory, which
// costs time for every fragment.
inline DecodeResult check_header(std::span<const std::uint8_t> bytes) {
    if (bytes.data() == nullptr) return DecodeResult::no_data;
    if (bytes.size() < wire::header_bytes) return DecodeResult::too_short;
    if (get<std::uint32_t>(bytes, 0) != wire::magic) return DecodeResult::bad_magic;
    if (get<std::uint16_t>(bytes, 4) != protocol_version) return DecodeResult::bad_version;
    if (get<std::uint32_t>(bytes, 8) != bytes.size()) return DecodeResult::bad_length;
    if (get<std::uint32_t>(bytes, 12) == 0) return DecodeResult::no_client_id;
    return DecodeResult::valid;
}

bool lies_within_block(const AudioFragment& fragment) {
    if (fragment.frames == 0 || fragment.channels == 0) return false;
    if (fragment.channel_count == 0 || fragment.frame_count == 0) return false;
    if (fragment.index >= fragment.count) return false;
    return fragment.first_channel + fragment.channel_count <= fragment.channels &&
           fragment.first_frame + fragment.frame_count <= fragment.frames;
}

}  // namespace

Datagram encode_announce(const Announce& announce) {
    const std::size_t inputs = announce.driver_inputs.size();
    const std::size_t outputs = announce.driver_outputs.size();
    Datagram datagram(wire::announce_fixed_bytes + 4 * (inputs + outputs));
    wire::put_header(datagram, MessageType::Announce, announce.client_id);
    put(datagram, 16, static_cast<std::uint16_t>(inputs));
    put(datagram, 18, static_cast<std::uint16_t>(outputs));
    put(datagram, 20, announce.session_id);
    put(datagram, 24, announce.input_latency_blocks);
    put(datagram, 28, announce.output_latency_blocks);
    put_list(datagram, wire::announce_fixed_bytes, announce.driver_inputs);
    put_list(datagram, wire::announce_fixed_bytes + 4 * inputs, announce.driver_outputs);
    return datagram;
}

Datagram encode_leave(std::uint32_t client_id, std::uint32_t session_id) {
    Announce leave;
    leave.client_id = client_id;
    leave.session_id = session_id;
    return encode_announce(leave);
}

Datagram encode_discover(const Discover& discover) {
    Datagram datagram(wire::discover_bytes);
    wire::put_header(datagram, MessageType::Discover, discover.client_id);
    put(datagram, 16, discover.nonce);
    return datagram;
}

Datagram encode_ping(const Ping& ping) {
    Datagram datagram(wire::ping_bytes);
    wire::put_header(datagram, MessageType::Ping, ping.client_id);
    put(datagram, 16, ping.nonce);
    put(datagram, 24, ping.t1_ns);
    return datagram;
}

bool encode_audio_block(const AudioBlockView& block, std::uint32_t udp_payload_bytes,
                        DatagramList& datagrams) {
    const auto fail = [&datagrams] {
        datagrams.clear();
        return false;
    };
    if (block.client_id == 0 || block.channels == 0 || block.frames == 0) return fail();
    if (block.samples.size() != static_cast<std::size_t>(block.frames) * block.channels) {
        return fail();
    }
    if (udp_payload_bytes < min_udp_payload_bytes || udp_payload_bytes > max_udp_payload_bytes) {
        return fail();
    }
    const FragmentPlan plan = plan_fragments(block.frames, block.channels,
                                             (udp_payload_bytes - wire::audio_fixed_bytes) / 4);
    if (plan.fragment_count > std::numeric_limits<std::uint16_t>::max()) return fail();

    datagrams.resize(static_cast<std::size_t>(plan.fragment_count));
    for (std::size_t index = 0; index < datagrams.size(); ++index) {
        encode_fragment(block, plan, index, datagrams[index]);
    }
    return true;
}

Decoded<Header> decode_header(std::span<const std::uint8_t> bytes) {
    const DecodeResult result = check_header(bytes);
    if (result != DecodeResult::valid) return {result};
    return {result,
            {stated_type(bytes), get<std::uint32_t>(bytes, 8), get<std::uint32_t>(bytes, 12)}};
}

MessageType stated_type(std::span<const std::uint8_t> bytes) noexcept {
    if (bytes.size() < wire::header_bytes) return {};
    return static_cast<MessageType>(get<std::uint16_t>(bytes, 6));
}

DecodeResult decode_expected(std::span<const std::uint8_t> bytes, MessageType type,
                             std::size_t exact_bytes) {
    const DecodeResult result = check_header(bytes);
    if (result != DecodeResult::valid) return result;
    if (stated_type(bytes) != type) return DecodeResult::wrong_type;
    if (bytes.size() != exact_bytes) return DecodeResult::bad_length;
    return DecodeResult::valid;
}

Decoded<SyncInfo> decode_sync(std::span<const std::uint8_t> bytes) {
    const DecodeResult result = decode_expected(bytes, MessageType::Sync, wire::sync_bytes);
    if (result != DecodeResult::valid) return {result};
    return {result,
            {get<std::uint32_t>(bytes, 16), get<std::uint32_t>(bytes, 20),
             get<std::uint16_t>(bytes, 24), get<std::uint64_t>(bytes, 28),
             get<std::uint64_t>(bytes, 36)}};
}

Decoded<DiscoverReply> decode_discover_reply(std::span<const std::uint8_t> bytes) {
    const DecodeResult result =
        decode_expected(bytes, MessageType::DiscoverReply, wire::discover_reply_bytes);
    if (result != DecodeResult::valid) return {result};
    return {result,
            {get<std::uint32_t>(bytes, 12), get<std::uint64_t>(bytes, 16),
             get<std::uint16_t>(bytes, 24), get<std::uint32_t>(bytes, 32),
             get<std::uint64_t>(bytes, 36)}};
}

Decoded<Pong> decode_pong(std::span<const std::uint8_t> bytes) {
    const DecodeResult result = decode_expected(bytes, MessageType::Pong, wire::pong_bytes);
    if (result != DecodeResult::valid) return {result};
    return {result,
            {get<std::uint32_t>(bytes, 12), get<std::uint64_t>(bytes, 16),
             get<std::uint64_t>(bytes, 24), get<std::uint64_t>(bytes, 32),
             get<std::uint64_t>(bytes, 40)}};
}

Decoded<AudioFragment> decode_audio(std::span<const std::uint8_t> bytes) {
    const DecodeResult result = check_header(bytes);
    if (result != DecodeResult::valid) return {result};
    if (stated_type(bytes) != MessageType::Audio || bytes.size() < wire::audio_fixed_bytes) {
        return {DecodeResult::bad_audio};
    }
    AudioFragment fragment;
    fragment.sequence = get<std::uint32_t>(bytes, 16);
    fragment.sample_rate = get<std::uint32_t>(bytes, 20);
    fragment.frames = get<std::uint16_t>(bytes, 24);
    fragment.channels = get<std::uint16_t>(bytes, 26);
    fragment.first_channel = get<std::uint16_t>(bytes, 28);
    fragment.channel_count = get<std::uint16_t>(bytes, 30);
    fragment.first_frame = get<std::uint16_t>(bytes, 32);
    fragment.frame_count = get<std::uint16_t>(bytes, 34);
    fragment.index = get<std::uint16_t>(bytes, 36);
    fragment.count = get<std::uint16_t>(bytes, 38);
    fragment.payload = bytes.subspan(wire::audio_fixed_bytes);
    if (!lies_within_block(fragment) || fragment.payload.size() != 4 * fragment.sample_count()) {
        return {DecodeResult::bad_audio};
    }
    return {DecodeResult::valid, fragment};
}

bool is_foreign_reply(std::span<const std::uint8_t> bytes, std::uint32_t client_id,
                      std::uint64_t nonce) {
    return bytes.size() >= 24 && get<std::uint32_t>(bytes, 0) == wire::magic &&
           get<std::uint16_t>(bytes, 6) == static_cast<std::uint16_t>(MessageType::DiscoverReply) &&
           get<std::uint32_t>(bytes, 8) == bytes.size() &&
           get<std::uint32_t>(bytes, 12) == client_id && get<std::uint64_t>(bytes, 16) == nonce;
}

std::uint16_t stated_version(std::span<const std::uint8_t> bytes) noexcept {
    return bytes.size() < wire::header_bytes ? std::uint16_t{0} : get<std::uint16_t>(bytes, 4);
}

void read_samples(std::span<const std::uint8_t> bytes, std::span<float> samples) {
    assert(bytes.size() == 4 * samples.size());
    if constexpr (std::endian::native == std::endian::little) {
        if (!samples.empty()) std::memcpy(samples.data(), bytes.data(), bytes.size());
    } else {
        for (std::size_t i = 0; i < samples.size(); ++i) {
            samples[i] = std::bit_cast<float>(get<std::uint32_t>(bytes, 4 * i));
        }
    }
}

void write_samples(std::span<const float> samples, std::span<std::uint8_t> bytes) {
    assert(bytes.size() == 4 * samples.size());
    if constexpr (std::endian::native == std::endian::little) {
        if (!samples.empty()) std::memcpy(bytes.data(), samples.data(), bytes.size());
    } else {
        for (std::size_t i = 0; i < samples.size(); ++i) {
            put(bytes, 4 * i, std::bit_cast<std::uint32_t>(samples[i]));
        }
    }
}

}  // namespace TavistroProtocol
