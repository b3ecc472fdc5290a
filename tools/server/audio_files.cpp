// Reads and writes audio files with libsndfile. No other source file uses that library.
#include <fmt/format.h>
#include <sndfile.hh>

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>

#include "tools/server/recorder.h"
#include "tools/server/sources.h"

namespace tavistro::server {

namespace {

/// The whole file stays in memory. The limit is about 45 minutes of stereo at 48 kHz.
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

std::unique_ptr<Source> make_file_source(const PlayOptions& options, std::uint32_t sample_rate) {
    SndfileHandle file(options.path);
    const auto channels = static_cast<std::size_t>(file.channels());
    const auto frames = static_cast<std::size_t>(std::max<sf_count_t>(file.frames(), 0));
    std::vector<float> samples;
    std::string fault;
    if (file.error() != SF_ERR_NO_ERROR) {
        fault = fmt::format("cannot be read: {}", file.strError());
    } else if (file.samplerate() != static_cast<int>(sample_rate)) {
        fault = fmt::format("has a sample rate of {} Hz, the stream has {} Hz", file.samplerate(),
                            sample_rate);
    } else if (options.channel + channels > bus_channel_count) {
        fault = fmt::format("has {} channels; from bus channel {} on there are only {}", channels,
                            options.channel, bus_channel_count - options.channel);
    } else if (frames > most_samples / channels) {
        fault = fmt::format("is too long: more than {} samples", most_samples);
    } else {
        samples.resize(frames * channels);
        const sf_count_t read = file.readf(samples.data(), file.frames());
        samples.resize(static_cast<std::size_t>(std::max<sf_count_t>(read, 0)) * channels);
        if (samples.empty()) fault = "contains no readable samples";
    }
    if (!fault.empty()) throw std::runtime_error(options.path + " " + fault);
    return std::make_unique<FileSource>(options.channel, channels, std::move(samples));
}

Recorder::Recorder(const RecordOptions& options, std::uint32_t sample_rate)
    : channels_(options.channels),
      file_(std::make_unique<SndfileHandle>(
          options.path, SFM_WRITE, SF_FORMAT_WAV | SF_FORMAT_FLOAT,
          static_cast<int>(options.channels.size()), static_cast<int>(sample_rate))) {
    if (file_->error() != SF_ERR_NO_ERROR)
        throw std::runtime_error("cannot write " + options.path + ": " + file_->strError());
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
