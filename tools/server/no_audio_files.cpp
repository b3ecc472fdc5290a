// Replaces audio_files.cpp in builds without libsndfile.
#include <stdexcept>

#include "tools/server/recorder.h"
#include "tools/server/sources.h"

class SndfileHandle {};  // completes the type that Recorder holds a pointer to

namespace tavistro::server {

std::unique_ptr<Source> make_file_source(const PlayOptions&, std::uint32_t) {
    throw std::runtime_error("--play: this build has no audio file support");
}

Recorder::Recorder(const RecordOptions&, std::uint32_t) {
    throw std::runtime_error("--record: this build has no audio file support");
}

Recorder::Recorder(Recorder&&) noexcept = default;
Recorder::~Recorder() = default;

void Recorder::write(std::span<const float>, std::size_t) {}

}  // namespace tavistro::server
