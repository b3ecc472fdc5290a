#include "net/capture_ring.h"

#include <algorithm>

namespace tavistro {

namespace {

constexpr double min_rate_ratio = 0.95;
constexpr double max_rate_ratio = 1.05;
// A fill of twice the target reads faster by 350 ppm; all corrections together stay inaudible.
constexpr double ratio_per_target = 0.00035;
constexpr double min_read_ratio = 0.9955;
constexpr double max_read_ratio = 1.0045;
// Interpolation looks one frame ahead, and the ratio may ask for one more.
constexpr std::uint64_t lookahead_frames = 2;

}  // namespace

CaptureRing::CaptureRing(std::size_t channels, std::uint32_t sample_rate, std::uint16_t frames,
                         std::uint64_t target_blocks, std::uint64_t capacity_blocks)
    : sample_rate_(sample_rate),
      frames_(frames),
      target_frames_(frames * target_blocks),
      limit_frames_(frames * capacity_blocks),
      capacity_(std::max(frames + lookahead_frames, limit_frames_)) {
    buffers_.assign(channels, std::vector<float>(static_cast<std::size_t>(capacity_)));
}

void CaptureRing::push(std::uint32_t sample_rate, std::uint16_t frames, std::uint16_t channels,
                       std::span<const float> samples, double rate_ratio) {
    if (!has_format() || sample_rate != sample_rate_ || frames != frames_) return;
    if (channels == 0 || channels != buffers_.size()) return;
    if (samples.size() != static_cast<std::size_t>(frames) * channels) return;
    if (rate_ratio > min_rate_ratio && rate_ratio < max_rate_ratio) rate_ratio_ = rate_ratio;

    // A block is shorter than the ring, so it wraps at most once.
    const auto write_pos = static_cast<std::size_t>((read_pos_ + fill_) % capacity_);
    const std::size_t before_end =
        std::min<std::size_t>(frames, static_cast<std::size_t>(capacity_) - write_pos);
    for (std::size_t c = 0; c < buffers_.size(); ++c) {
        const std::span<const float> channel = samples.subspan(c * frames, frames);
        std::ranges::copy(channel.first(before_end), buffers_[c].data() + write_pos);
        std::ranges::copy(channel.subspan(before_end), buffers_[c].data());
    }
    fill_ += frames;
    if (fill_ > limit_frames_) drop_oldest(fill_ - limit_frames_);
    frac_pos_ = std::min(frac_pos_, static_cast<double>(fill_));
}

bool CaptureRing::pull(std::uint32_t sample_rate, std::uint16_t frames, std::vector<float>& block) {
    if (buffers_.empty() || sample_rate != sample_rate_ || frames != frames_) return false;
    if (fill_ < frames + lookahead_frames) return false;
    const double ratio = read_ratio();
    block.resize(buffers_.size() * frames);
    for (std::size_t c = 0; c < buffers_.size(); ++c) {
        read_channel(buffers_[c], ratio, std::span(block).subspan(c * frames, frames));
    }
    frac_pos_ = frames * ratio + frac_pos_;
    const std::uint64_t consumed = std::min(static_cast<std::uint64_t>(frac_pos_), fill_);
    drop_oldest(consumed);
    frac_pos_ -= static_cast<double>(consumed);
    return true;
}

double CaptureRing::read_ratio() const noexcept {
    const double excess = static_cast<double>(fill_) - static_cast<double>(target_frames_);
    const double ratio =
        rate_ratio_ + (excess / static_cast<double>(target_frames_)) * ratio_per_target;
    return std::clamp(ratio, min_read_ratio, max_read_ratio);
}

void CaptureRing::read_channel(const std::vector<float>& buffer, double ratio,
                               std::span<float> block) const {
    const auto sample_at = [&](std::uint64_t distance) {
        const std::uint64_t index = read_pos_ + std::min(distance, fill_ - 1);
        return buffer[static_cast<std::size_t>(index < capacity_ ? index : index - capacity_)];
    };
    for (std::size_t i = 0; i < block.size(); ++i) {
        const double position = static_cast<double>(i) * ratio + frac_pos_;
        const auto whole = static_cast<std::uint64_t>(position);
        const float a = sample_at(whole);
        const float b = sample_at(whole + 1);
        const float step = b - a;
        block[i] =
            static_cast<float>(static_cast<double>(a) +
                               static_cast<double>(step) * (position - static_cast<double>(whole)));
    }
}

void CaptureRing::drop_oldest(std::uint64_t frames) noexcept {
    read_pos_ = (read_pos_ + frames) % capacity_;
    fill_ -= frames;
}

}  // namespace tavistro
