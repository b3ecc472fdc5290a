// A buffer between two threads; what it plays, counts and refuses is held against a model in fuzz/.
#include "audio/playback_buffer.h"

#include <gtest/gtest.h>

#include <thread>

namespace tavistro {
namespace {

/// A recognisable sample that single precision holds exactly.
float sample_at(std::uint64_t block, std::size_t index) {
    return static_cast<float>((block * 7919 + index * 104729) % 16381) / 16384.0F - 0.5F;
}

TEST(PlaybackBuffer, KeepsOrderBetweenTwoThreads) {
    constexpr std::uint64_t blocks = 5000;
    constexpr std::uint16_t frames = 16, channels = 2;
    PlaybackBuffer buffer;
    buffer.configure({frames, 48000, channels, 1, 0, 10});
    std::thread producer([&] {
        std::vector<float> samples(std::size_t{frames} * channels);
        for (std::uint64_t block = 0; block < blocks; std::this_thread::yield()) {
            for (std::size_t i = 0; i < samples.size(); ++i)
                samples[i] = sample_at(block, i);
            const auto sequence = static_cast<std::uint32_t>(block);
            block += buffer.push_block({sequence, 48000, frames, channels, samples}) ? 1 : 0;
        }
    });
    PlaybackBlock played;
    played.samples.resize(std::size_t{frames} * channels);
    std::uint64_t wrong = 0;
    for (std::uint64_t block = 0; block < blocks; std::this_thread::yield()) {
        if (!buffer.render_period(played, 0)) continue;
        for (std::size_t i = 0; i < played.samples.size(); ++i)
            wrong += played.samples[i] == sample_at(block, i) ? 0 : 1;
        ++block;
    }
    producer.join();
    EXPECT_EQ(wrong, 0U);
    buffer.release();
    EXPECT_FALSE(buffer.push_block({0, 48000, frames, channels, played.samples}))
        << "a late block finds nothing to go to";
}

}  // namespace
}  // namespace tavistro
