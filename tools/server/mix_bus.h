// The server's mix bus: one block of samples per channel, the sum of all sources and client inputs.
#pragma once

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "tools/server/server_options.h"

namespace tavistro::server {

class MixBus {
  public:
    explicit MixBus(std::uint16_t frames) { resize(frames); }

    /// Sets the block size and silences every channel.
    void resize(std::uint16_t frames) {
        frames_ = frames;
        samples_.assign(bus_channel_count * frames, 0.0F);
    }
    void clear() { std::fill(samples_.begin(), samples_.end(), 0.0F); }

    std::uint16_t frames() const noexcept { return frames_; }
    std::span<const float> samples() const noexcept { return samples_; }
    std::span<float> channel(std::size_t index) {
        assert(index < bus_channel_count);
        return std::span(samples_).subspan(index * frames_, frames_);
    }
    std::span<const float> channel(std::size_t index) const {
        assert(index < bus_channel_count);
        return std::span(samples_).subspan(index * frames_, frames_);
    }

    /// Mixes one block into one channel.
    void add(std::size_t index, std::span<const float> block) {
        const std::span<float> target = channel(index);
        assert(block.size() == target.size());
        std::transform(block.begin(), block.end(), target.begin(), target.begin(),
                       [](float a, float b) { return a + b; });
    }

  private:
    std::uint16_t frames_ = 0;
    std::vector<float> samples_;  ///< channel c, frame f at c * frames + f
};

}  // namespace tavistro::server
