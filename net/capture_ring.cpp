#include "net/capture_ring.h"

#include <algorithm>

#include "common/drift_law.h"

namespace tavistro {

namespace {

// Interpolation reads one frame ahead, and a ratio above 1 may need one more.
constexpr std::uint64_t lookahead_frames = 2;

}  // namespace

CaptureRing::CaptureRing(std::size_t channels, std::uint32_t sample_rate, std::uint16_t frames,
                         std::uint64_t target_blocks, std::uint64_t capacity_blocks)
    : ring_sample_rate_(sample_rate),
      ring_frames_(frames),
      target_samples_(frames * target_blocks),
      limit_samples_(frames * capacity_blocks) {
    buffers_ = PlanarRing(
        channels, static_cast<std::size_t>(std::max(frames + lookahead_frames, limit_samples_)));
}

void CaptureRing::push(std::uint32_t sample_rate, std::uint16_t frames, std::uint16_t channels,
                       std::span<const float> samples, double rate_ratio) {
    if (!capture_format_set() || sample_rate != ring_sample_rate_ || frames != ring_frames_) return;
    if (channels == 0 || channels != buffers_.channels()) return;
    if (samples.size() != static_cast<std::size_t>(frames) * channels) return;
    if (plausible_clock_ratio(rate_ratio)) rate_ratio_ = rate_ratio;

    buffers_.write(buffers_.advanced(read_pos_, static_cast<std::size_t>(fill_)), samples);
    fill_ += frames;
    if (fill_ > limit_samples_) drop_oldest(fill_ - limit_samples_);
    frac_pos_ = std::min(frac_pos_, static_cast<double>(fill_));
}

bool CaptureRing::pull(std::uint32_t sample_rate, std::uint16_t frames, std::vector<float>& block) {
    if (buffers_.channels() == 0 || sample_rate != ring_sample_rate_ || frames != ring_frames_)
        return false;
    if (fill_ < frames + lookahead_frames) return false;
    const double ratio =
        read_ratio(rate_ratio_, static_cast<double>(fill_), static_cast<double>(target_samples_));
    block.resize(buffers_.channels() * frames);
    buffers_.interpolate(
        {.position = read_pos_, .available = fill_, .ratio = ratio, .offset = frac_pos_}, block);
    frac_pos_ = frames * ratio + frac_pos_;
    const std::uint64_t consumed = std::min(static_cast<std::uint64_t>(frac_pos_), fill_);
    drop_oldest(consumed);
    frac_pos_ -= static_cast<double>(consumed);
    return true;
}

void CaptureRing::drop_oldest(std::uint64_t frames) noexcept {
    read_pos_ = buffers_.advanced(read_pos_, static_cast<std::size_t>(frames));
    fill_ -= frames;
}

}  // namespace tavistro
