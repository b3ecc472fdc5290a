// What the server itself plays: tones, a tune, audio files.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "tools/server/mix_bus.h"
#include "tools/server/server_options.h"

namespace tavistro::server {

/// Something that plays on the bus, one block after the other. Not thread-safe.
class Source {
  public:
    virtual ~Source() = default;
    /// Adds the next block, of the bus's size. Allocates nothing.
    virtual void mix(MixBus& bus) = 0;
    /// The stream goes on at another rate, which a file cannot follow.
    virtual void change_rate(std::uint32_t sample_rate) = 0;
};

using SourceList = std::vector<std::unique_ptr<Source>>;

std::unique_ptr<Source> make_tone(const ToneOptions& options, std::uint32_t sample_rate);
std::unique_ptr<Source> make_melody(const MelodyOptions& options, std::uint32_t sample_rate);
/// Reads the whole file. Throws std::runtime_error, its text for people, for a file that cannot be
/// read, another sample rate than the stream's, more channels than the bus has from the first one
/// on, or no frames.
std::unique_ptr<Source> make_file_source(const PlayOptions& options, std::uint32_t sample_rate);
/// Every source of the options; throws as the files do.
SourceList make_sources(const ServerOptions& options);

}  // namespace tavistro::server
