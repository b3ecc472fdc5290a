// Compares the playback buffer with a plain model (a deque of frames, one thread) after every step:
// samples, counters, read ratio and fill level.
#include <algorithm>
#include <array>
#include <deque>

#include "audio/playback_buffer.h"
#include "common/drift_law.h"
#include "fuzz/fuzz.h"

namespace {

using namespace tavistro;

constexpr std::size_t most_channels = 2;

struct Frame {
    std::array<float, most_channels> samples{};
    std::uint32_t sequence = 0;
};

struct Model {
    PlaybackShape shape;
    std::deque<Frame> held;
    bool playing = false;
    std::uint64_t starved = 0;
    double fraction = 0.0, ratio = 1.0;
    std::uint64_t received = 0, dequeued = 0, rendered = 0;
    std::uint64_t underruns = 0, overruns = 0, dropped = 0, format_drops = 0;
    FillStatistics::Range fill{};

    std::uint64_t blocks(std::uint64_t count) const {
        return static_cast<std::uint64_t>(shape.block_frames) * count;
    }
    void note_fill() {
        fill.current = held.size();
        if (fill.minFrames == 0 || held.size() < fill.minFrames) fill.minFrames = held.size();
        fill.maxFrames = std::max<std::uint64_t>(fill.maxFrames, held.size());
    }
    bool push(const IncomingBlock& block) {
        const bool format = block.frames == blocks(1) && block.sample_rate == shape.sample_rate;
        const std::uint64_t capacity = blocks(shape.max_queue_blocks);
        const bool fits = format && block.channels == shape.channels && capacity != 0 &&
                          block.samples.size() == std::size_t{block.channels} * block.frames;
        const bool room = held.size() + block.frames <= capacity;
        format_drops += !format;
        overruns += fits && !room;
        (fits && room ? received : dropped) += 1;
        for (std::size_t f = 0; f < block.frames && fits && room; ++f) {
            held.push_back({{}, block.sequence});
            for (std::size_t c = 0; c < block.channels; ++c)
                held.back().samples[c] = block.samples[c * block.frames + f];
        }
        if (fits) note_fill();
        return fits && room;
    }
    /// Returns true if this period has something to play.
    bool begin_period(double speed) {
        if (!playing && held.size() < blocks(shape.prebuffer_blocks)) return false;
        playing = true;
        if (held.size() >= blocks(1)) {
            starved = 0;
            const auto target = static_cast<double>(blocks(shape.target_queue_depth));
            const auto fill_found = static_cast<double>(held.size());
            ratio = target > 0.0 ? read_ratio(speed, fill_found, target) : 1.0;
            return shape.channels != 0 && blocks(shape.max_queue_blocks) != 0;
        }
        playing = ++starved < std::max<std::uint64_t>(shape.prebuffer_blocks, 3);
        if (!playing) fraction = 0.0;
        return false;
    }
    float sample(std::size_t channel, std::size_t frame) const {
        if (ratio == 1.0 && fraction == 0.0) return held[frame].samples[channel];
        const double position = static_cast<double>(frame) * ratio + fraction;
        const auto whole = static_cast<std::size_t>(position);
        const auto at = [&](std::size_t f) {
            return held[std::min(f, held.size() - 1)].samples[channel];
        };
        const double step = at(whole + 1) - at(whole);
        const double part = position - static_cast<double>(whole);
        return static_cast<float>(step * part + static_cast<double>(at(whole)));
    }
    void consume() {
        fraction += static_cast<double>(shape.block_frames) * ratio;
        const std::size_t whole = std::min(static_cast<std::size_t>(fraction), held.size());
        held.erase(held.begin(), held.begin() + static_cast<std::ptrdiff_t>(whole));
        fraction -= static_cast<double>(whole);
        ++dequeued;
        note_fill();
    }
};

class Rig {
  public:
    explicit Rig(fuzz::Input input) : in_(input) { configure(); }

    void run() {
        while (!in_.empty()) {
            step(in_.below(16));
            compare();
        }
    }

  private:
    void step(std::uint16_t what) {
        if (what == 0) return in_.one_in(8) ? configure() : void();
        if (what == 1) return take_fill_statistics();
        if (what < 8) return push();
        if (what < 14) return play();
        // Mostly close to the frames that the device has played since.
        server_frames_ += in_.one_in(16) ? in_.take<std::uint64_t>() : 90U + in_.below(20);
        buffer_.drift().on_sync(server_frames_);
        buffer_.drift().update_drift();
        buffer_.drift().add_local_frames(100);
    }
    void configure() {
        model_ = {};
        model_.shape = {in_.below(150), 48000,        in_.below(most_channels + 1U),
                        in_.below(8),   in_.below(8), in_.below(9)};
        buffer_.configure(model_.shape);
        played_.samples.resize(model_.shape.channels * model_.blocks(1));
    }
    void take_fill_statistics() {
        const auto [current, lowest, highest] = buffer_.fill_statistics().take();
        REQUIRE(current == model_.fill.current && lowest == model_.fill.minFrames);
        REQUIRE(highest == model_.fill.maxFrames);
        model_.fill = {current, current, current};
    }
    void push() {
        const std::uint16_t oddity = in_.below(64);  // mostly a valid block
        const auto frames = static_cast<std::uint16_t>(model_.blocks(1) + (oddity == 1));
        const auto channels = static_cast<std::uint16_t>(model_.shape.channels + (oddity == 2));
        const auto samples = in_.samples(std::size_t{frames} * channels + (oddity == 3));
        const IncomingBlock block{in_.take(), 48000U + (oddity == 4), frames, channels, samples};
        REQUIRE(buffer_.push_block(block) == model_.push(block));
    }
    void play() {
        const bool was_playing = model_.playing;
        const bool expected = model_.begin_period(buffer_.drift().pll_ratio());
        if (in_.one_in(2)) {
            double ratio = 0.0;
            std::uint64_t fill = 0;
            REQUIRE(buffer_.render_block(played_, ratio, fill) == expected);
            REQUIRE(fill == model_.held.size() && (!expected || ratio == model_.ratio));
        } else {
            REQUIRE(buffer_.render_period(played_, 0) == expected);
            if (!expected && was_playing)
                ++model_.underruns;
            else
                model_.rendered += model_.blocks(1);
        }
        if (!expected) return;
        std::vector<float> samples;
        for (std::size_t c = 0; c < model_.shape.channels; ++c)
            for (std::size_t frame = 0; frame < model_.blocks(1); ++frame)
                samples.push_back(model_.sample(c, frame));
        const auto same = [](float x, float y) { return x == y || (x != x && y != y); };
        REQUIRE(std::ranges::equal(played_.samples, samples, same));
        REQUIRE(played_.sequence == model_.held.front().sequence);
        model_.consume();
    }
    void compare() {
        const PlaybackCounters& counters = buffer_.counters();
        REQUIRE(buffer_.fill() == model_.held.size() && buffer_.playing() == model_.playing);
        REQUIRE(counters.received_blocks == model_.received);
        REQUIRE(counters.dequeued_blocks == model_.dequeued);
        REQUIRE(counters.renderedFrames == model_.rendered);
        REQUIRE(counters.underruns == model_.underruns && counters.overruns == model_.overruns);
        REQUIRE(counters.playbackDropped == model_.dropped);
        REQUIRE(counters.format_drops == model_.format_drops);
    }

    fuzz::Input in_;
    PlaybackBuffer buffer_;
    Model model_;
    PlaybackBlock played_;
    std::uint64_t server_frames_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Rig({data, size}).run();
    return 0;
}
