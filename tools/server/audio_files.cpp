// Audio files, read and written through libsndfile; nothing else of the server knows it.
#include <sndfile.hh>

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>

#include "tools/server/recorder.h"
#include "tools/server/sources.h"

namespace tavistro::server {

namespace {

/// A file is held whole: about 45 minutes of stereo at 48 kHz.
constexpr std::size_t most_samples = std::size_t{1} << 28;

class FileSource final : public Source {
  public:
    FileSource(std::uint32_t first_channel, std::size_t channels, std::vector<float> samples)
        : first_channel_(first_channel), channels_(channels), samples_(std::move(samples)) {}

    void mix(MixBus& bus) override {
        for (std::size_t frame = 0; frame < bus.frames(); ++frame) {
            for (std::size_t channel = 0; channel < channels_; ++channel) {
                bus.channel(first_channel_ + channel)[frame] += samples_[position_ + channel];
            }
            position_ = (position_ + channels_) % samples_.size();
        }
    }

    void change_rate(std::uint32_t) override {}

  private:
    std::uint32_t first_channel_;
    std::size_t channels_;
    std::vector<float> samples_;  ///< interleaved, as in the file
    std::size_t position_ = 0;
};

}  // namespace

Outcome<std::unique_ptr<Source>> make_file_source(const PlayOptions& options,
                                                  std::uint32_t sample_rate) {
    SndfileHandle file(options.path);
    if (file.error() != SF_ERR_NO_ERROR) {
        return {.error = "cannot read " + options.path + ": " + file.strError()};
    }
    if (file.samplerate() != static_cast<int>(sample_rate)) {
        return {.error = options.path + " has " + std::to_string(file.samplerate()) +
                         " Hz, the stream has " + std::to_string(sample_rate) + " Hz"};
    }
    const auto channels = static_cast<std::size_t>(file.channels());
    if (options.channel + channels > bus_channel_count) {
        return {.error = options.path + " has " + std::to_string(channels) +
                         " channels: too many from bus channel " + std::to_string(options.channel) +
                         " on"};
    }
    const auto frames = static_cast<std::size_t>(std::max<sf_count_t>(file.frames(), 0));
    if (frames == 0 || frames > most_samples / channels) {
        return {.error = options.path + (frames == 0 ? " is empty" : " is too long")};
    }
    std::vector<float> samples(frames * channels);
    const sf_count_t read = file.readf(samples.data(), file.frames());
    if (read <= 0) return {.error = "cannot read " + options.path + ": " + file.strError()};
    samples.resize(static_cast<std::size_t>(read) * channels);
    return {.value = std::make_unique<FileSource>(options.channel, channels, std::move(samples))};
}

Recorder::Recorder(const RecordOptions& options, std::uint32_t sample_rate)
    : channels_(options.channels),
      file_(std::make_unique<SndfileHandle>(
          options.path, SFM_WRITE, SF_FORMAT_WAV | SF_FORMAT_FLOAT,
          static_cast<int>(options.channels.size()), static_cast<int>(sample_rate))) {
    if (file_->error() == SF_ERR_NO_ERROR) return;
    error_ = "cannot write " + options.path + ": " + file_->strError();
}

Recorder::Recorder(Recorder&&) noexcept = default;
Recorder::~Recorder() = default;

void Recorder::write(std::span<const float> bus, std::size_t frames) {
    interleaved_.resize(frames * channels_.size());
    std::size_t next = 0;
    for (std::size_t frame = 0; frame < frames; ++frame) {
        for (const std::uint32_t channel : channels_) {
            interleaved_[next++] = bus[channel * frames + frame];
        }
    }
    const auto count = static_cast<sf_count_t>(frames);
    if (file_->writef(interleaved_.data(), count) == count || !error_.empty()) return;
    error_ = std::string("recording failed: ") + file_->strError();
}

}  // namespace tavistro::server
