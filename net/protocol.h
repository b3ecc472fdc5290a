// The wire protocol: one message per UDP datagram, seven types with a common 16-byte header.
//
// Encoders return a datagram of exactly the message's length. Decoders accept any bytes, never read
// beyond them, never throw and return the first error found. All functions are pure; any thread may
// call them. Messages that only a server sends or reads are in server_messages.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "net/protocol_records.h"

namespace TavistroProtocol {

inline constexpr std::uint16_t protocol_version = 5;
/// Capability word of a compatible server: the letters TVSO, protocol version 5, revision 1.
inline constexpr std::uint64_t capability_word = 0x5456534F00050001;
/// Range of the size limit for audio fragments: one sample to the largest UDP payload.
inline constexpr std::uint32_t min_udp_payload_bytes = 52;
inline constexpr std::uint32_t max_udp_payload_bytes = 65507;

enum class MessageType : std::uint16_t {
    Announce = 1,       ///< client: registers with its channel lists, or leaves
    Audio = 2,          ///< both: one fragment of an audio block
    Sync = 3,           ///< server: sync notice per block: sequence, stream format and time
    Discover = 4,       ///< client: asks for servers and their protocol version
    DiscoverReply = 5,  ///< server: answer to Discover
    Ping = 6,           ///< client: asks for the server clock
    Pong = 7,           ///< server: answer to Ping
};

enum class DecodeResult : std::uint32_t {
    valid = 0,
    no_data = 1,    ///< a null pointer, not an empty datagram
    too_short = 2,  ///< shorter than the header
    bad_magic = 3,
    bad_version = 4,
    bad_length = 5,  ///< the size differs from the length field or from what the type requires
    no_client_id = 6,
    wrong_type = 7,
    bad_audio = 8,
};

/// Result of a decoder; `message` is meaningful only if the result is valid.
template <typename Message>
struct Decoded {
    DecodeResult result = DecodeResult::valid;
    Message message{};

    explicit operator bool() const noexcept { return result == DecodeResult::valid; }
};

struct Header {
    MessageType type{};        ///< as received; may be an unknown type
    std::uint32_t length = 0;  ///< of the datagram with its header, in bytes
    std::uint32_t client_id = 0;
};

/// Without channels and with zero latencies it is a leave message.
struct Announce {
    std::uint32_t client_id = 0;
    std::uint32_t session_id = 0;  ///< not 0; new at each start of a client
    std::uint32_t input_latency_blocks = 0;
    std::uint32_t output_latency_blocks = 0;
    std::vector<std::int32_t> driver_inputs;   ///< server channels that the client sends to
    std::vector<std::int32_t> driver_outputs;  ///< server channels that the client receives
};

struct Discover {
    std::uint32_t client_id = 0;
    std::uint64_t nonce = 0;
};

struct DiscoverReply {
    std::uint32_t client_id = 0;  ///< of the client that asked
    std::uint64_t nonce = 0;      ///< echo
    std::uint16_t port = 0;       ///< server port for this client's traffic; not 0
    std::uint32_t version = protocol_version;
    std::uint64_t capability = capability_word;
};

struct Ping {
    std::uint32_t client_id = 0;
    std::uint64_t nonce = 0;
    std::uint64_t t1_ns = 0;  ///< client clock when the ping was built
};

struct Pong {
    std::uint32_t client_id = 0;
    std::uint64_t nonce = 0;  ///< echo
    std::uint64_t t1_ns = 0;  ///< echo
    std::uint64_t t2_ns = 0;  ///< server clock when the ping arrived
    std::uint64_t t3_ns = 0;  ///< server clock when the pong was sent
};

/// A rectangle of an audio block: `channel_count` channels from `first_channel` and `frame_count`
/// frames from `first_frame`. A decoded fragment is not empty and lies within the block.
struct AudioFragment {
    std::uint32_t sequence = 0;
    std::uint32_t sample_rate = 0;  ///< Hz; not checked by the decoder
    std::uint16_t frames = 0;       ///< of the whole block
    std::uint16_t channels = 0;     ///< of the whole block
    std::uint16_t first_channel = 0;
    std::uint16_t channel_count = 0;
    std::uint16_t first_frame = 0;
    std::uint16_t frame_count = 0;
    std::uint16_t index = 0;  ///< below `count`
    std::uint16_t count = 0;  ///< fragments of the block
    /// Samples in wire format, channel after channel; points into the datagram.
    std::span<const std::uint8_t> payload;

    std::size_t sample_count() const noexcept {
        return static_cast<std::size_t>(channel_count) * frame_count;
    }
};

/// A whole block to send.
struct AudioBlockView {
    std::uint32_t client_id = 0;
    std::uint32_t sequence = 0;
    std::uint32_t sample_rate = 0;  ///< Hz
    std::uint16_t frames = 0;
    std::uint16_t channels = 0;
    std::span<const float> samples;  ///< planar: channel c, frame f at c * frames + f
};

using Datagram = std::vector<std::uint8_t>;
using DatagramList = std::vector<Datagram>;

/// Compares wrapping sequence numbers: true if `a` is 1..2^31 - 1 steps ahead of `b`.
constexpr bool is_newer(std::uint32_t a, std::uint32_t b) noexcept {
    return a != b && a - b < 0x80000000U;
}

/// The channel counts are the low 16 bits of the list sizes.
Datagram encode_announce(const Announce& announce);
Datagram encode_leave(std::uint32_t client_id, std::uint32_t session_id);
Datagram encode_discover(const Discover& discover);
Datagram encode_ping(const Ping& ping);

/// Splits a block into fragments of at most `udp_payload_bytes` each: whole channels if at least
/// one fits, else runs of frames of one channel. Replaces the content of `datagrams` and reuses
/// their storage: in a stream of equal blocks only the first allocates. Returns false and an empty
/// list for a client id, frame or channel count of 0, a sample count that is not
/// frames * channels, a size limit outside min_udp_payload_bytes..max_udp_payload_bytes, or more
/// than 65535 fragments.
bool encode_audio_block(const AudioBlockView& block, std::uint32_t udp_payload_bytes,
                        DatagramList& datagrams);

Decoded<Header> decode_header(std::span<const std::uint8_t> bytes);
/// The type field of the header, unchecked, to select the decoder. MessageType{} if the datagram is
/// too short for a header.
MessageType stated_type(std::span<const std::uint8_t> bytes) noexcept;
/// Checks a message of fixed size: header, then type, then size.
DecodeResult decode_expected(std::span<const std::uint8_t> bytes, MessageType type,
                             std::size_t exact_bytes);
Decoded<SyncInfo> decode_sync(std::span<const std::uint8_t> bytes);
Decoded<DiscoverReply> decode_discover_reply(std::span<const std::uint8_t> bytes);
Decoded<Pong> decode_pong(std::span<const std::uint8_t> bytes);
Decoded<AudioFragment> decode_audio(std::span<const std::uint8_t> bytes);

/// True for a reply to our own discover message from a server of any protocol version: type, size,
/// client id and nonce match; the version is not checked.
bool is_foreign_reply(std::span<const std::uint8_t> bytes, std::uint32_t client_id,
                      std::uint64_t nonce);

/// The version field of the header, unchecked; 0 if the datagram is too short for a header.
std::uint16_t stated_version(std::span<const std::uint8_t> bytes) noexcept;

/// Convert samples from and to wire format. Precondition: 4 bytes per sample.
void read_samples(std::span<const std::uint8_t> bytes, std::span<float> samples);
void write_samples(std::span<const float> samples, std::span<std::uint8_t> bytes);

}  // namespace TavistroProtocol
