#include "tools/server/sources.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <random>

namespace tavistro::server {

namespace {

constexpr double full_turn = 2.0 * std::numbers::pi;

class Tone final : public Source {
  public:
    Tone(const ToneOptions& options, std::uint32_t sample_rate) : options_(options) {
        change_rate(sample_rate);
    }

    void mix(MixBus& bus) override {
        for (float& sample : bus.channel(options_.channel)) {
            sample += options_.level * static_cast<float>(std::sin(full_turn * turns_));
            turns_ += turns_per_frame_;
            turns_ -= std::floor(turns_);
        }
    }

    void change_rate(std::uint32_t sample_rate) override {
        turns_per_frame_ = options_.frequency_hz / sample_rate;
    }

  private:
    ToneOptions options_;
    double turns_per_frame_ = 0;
    double turns_ = 0;
};

/// Notes of a pentatonic scale with random pitch and length; in practice the sequence never
/// repeats. Each note has a fast attack and a decay, so that its envelope alone shows where it
/// begins.
class Melody final : public Source {
  public:
    Melody(const MelodyOptions& options, std::uint32_t sample_rate)
        : options_(options), random_(options.channel + 1), sample_rate_(sample_rate) {
        begin_note();
    }

    void mix(MixBus& bus) override {
        for (float& sample : bus.channel(options_.channel)) {
            if (frames_left_ == 0) begin_note();
            --frames_left_;
            sample += options_.level * static_cast<float>(next_value());
        }
    }

    void change_rate(std::uint32_t sample_rate) override {
        sample_rate_ = sample_rate;
        begin_note();
    }

  private:
    static constexpr std::array<double, 10> scale_hz{220.0, 261.63, 293.66, 329.63, 392.0,
                                                     440.0, 523.25, 587.33, 659.26, 783.99};
    static constexpr double attack_seconds = 0.005;
    static constexpr double decay_seconds = 0.15;
    static constexpr double shortest_note_ms = 90;
    static constexpr double note_ms_range = 260;

    void begin_note() {
        const double rate = sample_rate_;
        turns_per_frame_ = scale_hz[random_() % scale_hz.size()] / rate;
        const double length_ms =
            shortest_note_ms + note_ms_range * static_cast<double>(random_() % 1024) / 1024.0;
        frames_left_ = static_cast<std::uint32_t>(length_ms * rate / 1000.0);
        attack_ = 0;
        attack_step_ = 1.0 / (attack_seconds * rate);
        decay_ = 1;
        decay_factor_ = std::exp(-1.0 / (decay_seconds * rate));
        turns_ = 0;
    }

    double next_value() {
        attack_ = std::min(1.0, attack_ + attack_step_);
        decay_ *= decay_factor_;
        turns_ += turns_per_frame_;
        const double angle = full_turn * turns_;
        return attack_ * decay_ * (0.8 * std::sin(angle) + 0.2 * std::sin(2 * angle));
    }

    MelodyOptions options_;
    std::minstd_rand random_;
    std::uint32_t sample_rate_;
    std::uint32_t frames_left_ = 0;
    double attack_ = 0;
    double attack_step_ = 0;
    double decay_ = 0;
    double decay_factor_ = 0;
    double turns_ = 0;
    double turns_per_frame_ = 0;
};

}  // namespace

std::unique_ptr<Source> make_tone(const ToneOptions& options, std::uint32_t sample_rate) {
    return std::make_unique<Tone>(options, sample_rate);
}

std::unique_ptr<Source> make_melody(const MelodyOptions& options, std::uint32_t sample_rate) {
    return std::make_unique<Melody>(options, sample_rate);
}

SourceList make_sources(const ServerOptions& options) {
    const std::uint32_t rate = options.format.sample_rate;
    SourceList sources;
    for (const ToneOptions& tone : options.tones)
        sources.push_back(make_tone(tone, rate));
    for (const MelodyOptions& melody : options.melodies)
        sources.push_back(make_melody(melody, rate));
    for (const PlayOptions& play : options.plays)
        sources.push_back(make_file_source(play, rate));
    return sources;
}

}  // namespace tavistro::server
