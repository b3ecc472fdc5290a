// The reference server's options, among them the faults that it simulates.
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

    /// 8000..384000 Hz and 1..8192 frames, the range that the server can keep up with.
    bool is_valid() const noexcept {
        return sample_rate >= 8000 && sample_rate <= 384000 && frames >= 1 && frames <= 8192;
    }
    double block_ms() const noexcept { return 1000.0 * frames / sample_rate; }
    /// Number of whole blocks in `ms`; at least one unless `ms` is 0.
    std::uint64_t blocks_in_ms(std::uint64_t ms) const noexcept {
        const std::uint64_t blocks = ms * sample_rate / (1000ULL * frames);
        return ms != 0 && blocks == 0 ? 1 : blocks;
    }
};

/// Simulated network and server faults. The defaults mean no fault.
///
/// Network faults (drop, duplicate, reorder, jitter, burst) apply to every datagram in both
/// directions; each direction has its own random generator. Server faults (drift, offset, pause,
/// version, silence) affect only what the server sends.
struct FaultOptions {
    double drop_percent = 0;
    double duplicate_percent = 0;
    double reorder_percent = 0;             ///< delayed by two blocks, so that later ones overtake
    std::uint32_t jitter_ms = 0;            ///< largest delay; later datagrams wait behind
    std::uint32_t burst_every_ms = 0;       ///< period of loss bursts, each at the period's end
    std::uint32_t burst_length_blocks = 0;  ///< length of a loss burst; every datagram is dropped

    double drift_ppm = 0;              ///< speed of the server's clock against the local clock
    std::int64_t clock_offset_ms = 0;  ///< server clock minus local clock
    std::uint32_t pause_every_ms = 0;  ///< period of pauses in the sync notices, each at its end
    std::uint32_t pause_for_ms = 0;    ///< length of a pause; audio continues
    std::uint32_t reply_version = TavistroProtocol::protocol_version;
    bool silent = false;  ///< sends nothing at all
};

/// A sine on one bus channel.
struct ToneOptions {
    std::uint32_t channel = 0;
    double frequency_hz = 440;
    float level = 0.25F;  ///< peak, full scale 1
};

/// The built-in melody. It never repeats, so a time shift can be measured unambiguously.
struct MelodyOptions {
    std::uint32_t channel = 0;
    float level = 0.25F;
};

/// An audio file, looped. Its channels play on the bus channels from `channel` on.
struct PlayOptions {
    std::string path;
    std::uint32_t channel = 0;
};

/// Bus channels to record into a WAV file of 32-bit floats.
struct RecordOptions {
    std::string path;
    std::vector<std::uint32_t> channels;
};

/// Two bus channels: one sent to a client and the one on which the client returns it.
struct MeasureOptions {
    std::uint32_t sent = 0;
    std::uint32_t returned = 0;
};

struct ServerOptions {
    std::uint32_t bind_address = 0;     ///< host byte order; 0: every interface
    std::uint16_t port = default_port;  ///< 0: the system chooses a free port
    StreamFormat format{};
    std::uint32_t udp_payload_bytes = 1200;  ///< largest datagram of audio
    /// Of the first block. By default it follows from the wall clock, so that a restarted server's
    /// blocks are newer than the previous ones.
    std::optional<std::uint32_t> first_sequence{};
    std::vector<ToneOptions> tones{};
    std::vector<MelodyOptions> melodies{};
    std::vector<PlayOptions> plays{};
    std::vector<RecordOptions> records{};
    std::vector<MeasureOptions> measures{};
    FaultOptions faults{};
    std::uint32_t seed = 1;  ///< of the faults' random generators
};

}  // namespace tavistro::server
