// What a buffer does over time; its samples and speed are held against a model in fuzz/.
#include "audio/playback_buffer.h"

#include <gtest/gtest.h>

#include <thread>

namespace tavistro {
namespace {

/// A recognisable sample that single precision holds exactly.
float sample_at(std::size_t channel, std::uint64_t frame) {
    return static_cast<float>((frame * 7919 + channel * 104729) % 16381) / 16384.0F - 0.5F;
}

/// A buffer of ten blocks and two channels, fed with one endless recognisable signal.
class Stream {
  public:
    explicit Stream(std::uint64_t prebuffer, std::uint16_t frames = 128) : frames_(frames) {
        buffer.configure({frames, 48000, 2, prebuffer, 0, 10});
        played.samples.resize(2 * std::size_t{frames});
    }
    IncomingBlock next_block() {
        samples_.clear();
        for (std::size_t i = 0; i < played.samples.size(); ++i)
            samples_.push_back(sample_at(i / frames_, pushed_ * frames_ + i % frames_));
        return {static_cast<std::uint32_t>(pushed_), 48000, frames_, 2, samples_};
    }
    bool push(std::size_t blocks = 1) {
        for (; blocks > 0; --blocks, ++pushed_)
            if (!buffer.push_block(next_block())) return false;
        return true;
    }
    bool render() { return buffer.render_period(played, 0); }

    PlaybackBuffer buffer;
    PlaybackBlock played;

  private:
    std::uint16_t frames_;
    std::uint64_t pushed_ = 0;
    std::vector<float> samples_;
};

TEST(PlaybackBuffer, PrebuffersPlaysStarvesAndPrebuffersAgain) {
    for (const std::uint64_t prebuffer : {1U, 5U}) {
        const std::uint64_t starved_periods = prebuffer == 1 ? 3 : 5;  // that lead back to it
        Stream stream(prebuffer);
        const PlaybackCounters& counters = stream.buffer.counters();
        stream.push(prebuffer - 1);
        EXPECT_FALSE(stream.render());
        stream.push();
        EXPECT_TRUE(stream.render()) << "the period that finds enough plays";
        EXPECT_EQ(counters.underruns, 0U) << "prebuffering is no underrun";
        EXPECT_EQ(counters.renderedFrames, 2 * 128U) << "but counts as rendered silence";

        while (stream.buffer.fill() > 0)
            EXPECT_TRUE(stream.render());
        EXPECT_FALSE(stream.render());
        stream.push();
        EXPECT_TRUE(stream.render()) << "one missing block costs no prebuffering";
        for (std::uint64_t i = 1; i <= starved_periods; ++i)
            EXPECT_FALSE(stream.render());
        EXPECT_FALSE(stream.render());
        EXPECT_EQ(counters.underruns, 1 + starved_periods) << "and prebuffering is none again";
    }
}

TEST(PlaybackBuffer, RejectsWhatDoesNotFitAndSaysWhy) {
    Stream stream(1);
    EXPECT_TRUE(stream.push(10));
    const PlaybackCounters& counters = stream.buffer.counters();
    const auto expect_rejected = [&](void (*spoil)(IncomingBlock&)) {
        IncomingBlock block = stream.next_block();
        spoil(block);
        EXPECT_FALSE(stream.buffer.push_block(block));
    };
    expect_rejected([](IncomingBlock& b) { b.channels = 1; });
    expect_rejected([](IncomingBlock& b) { b.samples = b.samples.first(255); });
    EXPECT_EQ(counters.format_drops + counters.overruns, 0U);
    expect_rejected([](IncomingBlock& b) { b.frames = 64; });
    expect_rejected([](IncomingBlock& b) { b.sample_rate = 44100; });
    EXPECT_EQ(counters.format_drops, 2U);
    expect_rejected([](IncomingBlock&) {});  // no room
    EXPECT_EQ(counters.overruns, 1U);
    EXPECT_EQ(counters.playbackDropped, 5U);
    EXPECT_TRUE(stream.render());
    EXPECT_EQ(stream.played.samples[0], sample_at(0, 0)) << "what was buffered stays";
    stream.buffer.release();
    EXPECT_FALSE(stream.push()) << "a late block finds nothing to go to";
}

TEST(PlaybackBuffer, KeepsOrderBetweenTwoThreads) {
    constexpr std::uint64_t blocks = 5000;
    Stream stream(1, 16);
    std::thread producer([&] {
        for (std::uint64_t pushed = 0; pushed < blocks; std::this_thread::yield())
            pushed += stream.push() ? 1 : 0;
    });
    std::uint64_t wrong = 0;
    for (std::uint64_t block = 0; block < blocks; std::this_thread::yield()) {
        if (!stream.render()) continue;
        for (std::size_t i = 0; i < 32; ++i)
            wrong += stream.played.samples[i] == sample_at(i / 16, block * 16 + i % 16) ? 0 : 1;
        ++block;
    }
    producer.join();
    EXPECT_EQ(wrong, 0U);
}

}  // namespace
}  // namespace tavistro
