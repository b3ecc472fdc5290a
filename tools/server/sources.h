// The server's own audio sources: tones, melodies and audio files.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "tools/server/mix_bus.h"
#include "tools/server/server_options.h"

namespace tavistro::server {

/// Plays on the bus, block by block. Not thread-safe.
class Source {
  public:
    virtual ~Source() = default;
    /// Mixes the next block into the bus. Does not allocate.
    virtual void mix(MixBus& bus) = 0;
    /// Adapts to a new sample rate of the stream. Files ignore it.
    virtual void change_rate(std::uint32_t sample_rate) = 0;
};

using SourceList = std::vector<std::unique_ptr<Source>>;

std::unique_ptr<Source> make_tone(const ToneOptions& options, std::uint32_t sample_rate);
std::unique_ptr<Source> make_melody(const MelodyOptions& options, std::uint32_t sample_rate);
/// Reads the whole file. Throws std::runtime_error with a message for the user when the file cannot
/// be read, is empty or too long, has another sample rate than the stream, or has more channels
/// than the bus has from the first one on.
std::unique_ptr<Source> make_file_source(const PlayOptions& options, std::uint32_t sample_rate);
/// All sources of the options. Throws like make_file_source().
SourceList make_sources(const ServerOptions& options);

}  // namespace tavistro::server
