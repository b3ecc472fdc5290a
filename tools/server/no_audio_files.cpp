// Stands in for audio_files.cpp where libsndfile is not to be had.
#include "tools/server/recorder.h"
#include "tools/server/sources.h"

class SndfileHandle {};  // no recorder of this build has one

namespace tavistro::server {

namespace {

constexpr const char* no_support = ": this build has no audio file support";

}  // namespace

Outcome<std::unique_ptr<Source>> make_file_source(const PlayOptions& options, std::uint32_t) {
    return {.error = "cannot read " + options.path + no_support};
}

Recorder::Recorder(const RecordOptions& options, std::uint32_t)
    : error_("cannot write " + options.path + no_support) {}

Recorder::Recorder(Recorder&&) noexcept = default;
Recorder::~Recorder() = default;

void Recorder::write(std::span<const float>, std::size_t) {}

}  // namespace tavistro::server
