// What a reference server is told at start, and the faults that it can be told to play.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "net/protocol.h"

namespace tavistro::server {

inline constexpr std::size_t bus_channel_count = 32;
inline constexpr std::uint16_t default_port = 28010;

struct StreamFormat {
    std::uint32_t sample_rate = 48000;  ///< Hz
    std::uint16_t frames = 128;         ///< per block
    friend bool operator==(const StreamFormat&, const StreamFormat&) = default;

    /// 8000..384000 Hz and 1..8192 frames: what the server can keep up with.
    bool is_valid() const noexcept {
        return sample_rate >= 8000 && sample_rate <= 384000 && frames >= 1 && frames <= 8192;
    }
    double block_ms() const noexcept { return 1000.0 * frames / sample_rate; }
    /// Whole blocks in a time, at least one unless the time is 0.
    std::uint64_t blocks_in_ms(std::uint64_t ms) const noexcept {
        const std::uint64_t blocks = ms * sample_rate / (1000ULL * frames);
        return ms != 0 && blocks == 0 ? 1 : blocks;
    }
};

/// A bad network and a bad server. Zeros are a good one.
///
/// The network's faults (drop, duplicate, reorder, jitter, burst) meet every datagram in both
/// directions, each direction with random choices of its own. The server's faults (drift, offset,
/// pause, replies, silence) show in what it sends alone.
struct FaultOptions {
    double drop_percent = 0;
    double duplicate_percent = 0;
    double reorder_percent = 0;             ///< held back until about two blocks later have passed
    std::uint32_t jitter_ms = 0;            ///< largest delay; later datagrams queue up behind
    std::uint32_t burst_every_ms = 0;       ///< the line goes dead once in this time, at its end,
    std::uint32_t burst_length_blocks = 0;  ///< for as many blocks

    double drift_ppm = 0;              ///< the server's clock, and so its blocks, against ours
    std::int64_t clock_offset_ms = 0;  ///< the server's clock minus ours
    std::uint32_t pause_every_ms = 0;  ///< Sync stops once in this time, at its end; audio goes on
    std::uint32_t pause_for_ms = 0;
    std::uint32_t reply_version = TavistroProtocol::protocol_version;
    bool silent = false;  ///< sends nothing at all
};

/// A sine on one bus channel.
struct ToneOptions {
    std::uint32_t channel = 0;
    double frequency_hz = 440;
    float level = 0.25F;  ///< peak, full scale 1
};

/// The built-in tune, which never repeats: a shift in time can be told without ambiguity.
struct MelodyOptions {
    std::uint32_t channel = 0;
    float level = 0.25F;
};

/// An audio file, looped. Its n channels feed the bus from `channel` on.
struct PlayOptions {
    std::string path;
    std::uint32_t channel = 0;
};

/// Bus channels written to a WAV file of floats.
struct RecordOptions {
    std::string path;
    std::vector<std::uint32_t> channels;
};

/// Two bus channels: what was sent to a client, and where it should come back.
struct MeasureOptions {
    std::uint32_t sent = 0;
    std::uint32_t returned = 0;
};

struct ServerOptions {
    std::uint32_t bind_address = 0;     ///< host byte order; 0: every interface
    std::uint16_t port = default_port;  ///< 0: a port of the system's choice
    StreamFormat format{};
    std::uint32_t udp_payload_bytes = 1200;  ///< largest datagram of audio
    /// Of the first block; the time of day makes one without it, so that a restarted server's
    /// blocks are newer than those before.
    std::optional<std::uint32_t> first_sequence{};
    std::vector<ToneOptions> tones{};
    std::vector<MelodyOptions> melodies{};
    std::vector<PlayOptions> plays{};
    std::vector<RecordOptions> records{};
    std::vector<MeasureOptions> measures{};
    FaultOptions faults{};
    std::uint32_t seed = 1;  ///< of every random choice
};

}  // namespace tavistro::server
