// Benchmarks of the device side: playback buffer, captured periods, meters and sample formats.
#include <algorithm>
#include <cstring>
#include <string_view>

#include "asio/sample_format.h"
#include "audio/capture_slots.h"
#include "audio/peak_meters.h"
#include "audio/playback_buffer.h"
#include "bench/bench.h"
#include "drivers/base/reblocker.h"

namespace tavistro::bench {
namespace {

/// A playback buffer with room for kept_blocks and one batch.
class Playback {
  public:
    static constexpr std::size_t kept_blocks = 6;

    /// A target of 0 blocks fixes the read speed at exactly 1.
    Playback(const Shape& shape, std::uint64_t target_blocks)
        : samples_(noise(shape.samples())),
          block_{.sequence = 1,
                 .sample_rate = 48000,
                 .frames = shape.frames,
                 .channels = shape.channels,
                 .samples = samples_,
                 .server_time_local_ns = 1,
                 .arrival_time_ns = 1,
                 .delivery_time_ns = 1},
          most_blocks_(kept_blocks + shape.batch()) {
        rendered_.samples.resize(shape.samples());
        buffer_.configure({.block_frames = shape.frames,
                           .sample_rate = 48000,
                           .channels = shape.channels,
                           .prebuffer_blocks = 1,
                           .target_queue_depth = target_blocks,
                           .max_queue_blocks = most_blocks_});
        fill();
        drain();
    }

    bool push() { return buffer_.push_block(block_); }
    bool render() { return buffer_.render_period(rendered_, 2000); }
    void fill() {
        while (buffer_.fill() + block_.frames <= most_blocks_ * block_.frames)
            push();
    }
    void drain() {
        while (buffer_.fill() > kept_blocks * block_.frames)
            render();
    }

  private:
    std::vector<float> samples_;
    IncomingBlock block_;
    std::size_t most_blocks_;
    PlaybackBlock rendered_;
    PlaybackBuffer buffer_;
};

void push_block(benchmark::State& state, const Shape& shape) {
    Playback playback(shape, 0);
    measure(
        state, shape, [&] { playback.drain(); }, [&] { return playback.push(); });
}

void render_direct(benchmark::State& state, const Shape& shape) {
    Playback playback(shape, 0);
    measure(
        state, shape, [&] { playback.fill(); }, [&] { return playback.render(); });
}

void render_interpolated(benchmark::State& state, const Shape& shape) {
    Playback playback(shape, Playback::kept_blocks);
    measure(
        state, shape, [&] { playback.fill(); }, [&] { return playback.render(); });
}

void capture_drain(benchmark::State& state, const Shape& shape) {
    CaptureSlots slots;
    slots.configure(shape.samples());
    CaptureSlot taken;
    const auto fill = [&] {
        while (CaptureSlot* const slot = slots.begin_write()) {
            slot->frames = shape.frames;
            slot->channels = shape.channels;
            slots.commit_write();
        }
    };
    measure(state, CaptureSlots::slot_count - 1, shape.samples(), shape.bytes(), fill,
            [&] { return slots.take(taken); });
}

void peak_meters(benchmark::State& state, const Shape& shape) {
    const std::vector<float> samples = noise(shape.samples());
    PeakMeters meters;
    meters.configure(shape.channels);
    measure(
        state, shape, [&] { meters.take(); },
        [&] {
            for (std::size_t c = 0; c < shape.channels; ++c)
                meters.raise(c, std::span(samples).subspan(c * shape.frames, shape.frames));
            return true;
        });
}

/// One buffer per channel, as in ASIO drivers.
class DriverBuffers {
  public:
    DriverBuffers(const Shape& shape, std::uint32_t code)
        : frames_(shape.frames), code_(code), samples_(noise(shape.samples())) {
        buffers_.assign(shape.channels,
                        std::vector<unsigned char>(sample_size_bytes(code) * shape.frames));
        from_float();
    }
    bool to_float() {
        for (std::size_t c = 0; c < buffers_.size(); ++c)
            samples_to_float(buffers_[c].data(), code_, channel(c));
        return true;
    }
    bool from_float() {
        for (std::size_t c = 0; c < buffers_.size(); ++c)
            samples_from_float(buffers_[c].data(), code_, channel(c));
        return true;
    }
    /// Size of the samples in the larger of the two formats.
    std::size_t bytes() const {
        return samples_.size() * std::max(sizeof(float), sample_size_bytes(code_));
    }

  private:
    std::span<float> channel(std::size_t c) {
        return std::span(samples_).subspan(c * frames_, frames_);
    }
    std::size_t frames_;
    std::uint32_t code_;
    std::vector<float> samples_;
    std::vector<std::vector<unsigned char>> buffers_;
};

void add_conversions(std::uint32_t code) {
    const std::string type = std::string(sample_type_name(code)).substr(std::strlen("ASIOST"));
    add_for_every_shape("convert_to_float/" + type, [code](auto& state, const Shape& shape) {
        DriverBuffers buffers(shape, code);
        measure(
            state, shape.batch(), shape.samples(), buffers.bytes(), [] {},
            [&] { return buffers.to_float(); });
    });
    add_for_every_shape("convert_from_float/" + type, [code](auto& state, const Shape& shape) {
        DriverBuffers buffers(shape, code);
        measure(
            state, shape.batch(), shape.samples(), buffers.bytes(), [] {},
            [&] { return buffers.from_float(); });
    });
}

/// The ports of a device and the two halves of a host, which are silent.
struct Ports {
    explicit Ports(const Shape& shape, std::size_t block)
        : channels(shape.channels),
          frames(shape.frames),
          in(noise(shape.samples())),
          out(shape.samples()),
          block_frames(block),
          inputs(2 * channels * block),
          outputs(2 * channels * block) {
        blocks.start(block);
    }
    void read_inputs(std::size_t block_at, std::size_t period_at, std::size_t count) {
        for (std::size_t i = 0; i < channels; ++i)
            std::memcpy(inputs.data() + at(i, half) + block_at, in.data() + i * frames + period_at,
                        count * sizeof(float));
    }
    void run_block(std::size_t) { half = 1 - half; }
    void write_outputs(std::size_t block_at, std::size_t period_at, std::size_t count) {
        for (std::size_t i = 0; i < channels; ++i)
            std::memcpy(out.data() + i * frames + period_at,
                        outputs.data() + at(i, 1 - half) + block_at, count * sizeof(float));
    }
    void write_silence(std::size_t period_at, std::size_t count) {
        for (std::size_t i = 0; i < channels; ++i)
            std::memset(out.data() + i * frames + period_at, 0, count * sizeof(float));
    }
    std::size_t at(std::size_t channel, std::size_t of_half) const {
        return (2 * channel + of_half) * block_frames;
    }

    std::size_t channels, frames;
    std::vector<float> in, out;
    std::size_t block_frames;
    std::vector<float> inputs, outputs;
    std::size_t half = 0;
    drivers::Reblocker blocks;
};

/// One period in both directions, with blocks of so many quarters of it.
template <std::size_t quarters>
void reblock(benchmark::State& state, const Shape& shape) {
    Ports ports(shape, quarters * shape.frames / 4);
    measure(
        state, shape.batch(), 2 * shape.samples(), 2 * shape.bytes(), [] {},
        [&] {
            ports.blocks.run_period(shape.frames, ports);
            benchmark::DoNotOptimize(ports.out.data());
            return true;
        });
}

}  // namespace

void add_audio_benches() {
    add_for_every_shape("reblock", reblock<3>);
    add_for_every_shape("reblock_equal", reblock<4>);
    add_for_every_shape("push_block", push_block);
    add_for_every_shape("render_direct", render_direct);
    add_for_every_shape("render_interpolated", render_interpolated);
    add_for_every_shape("capture_drain", capture_drain);
    add_for_every_shape("peak_meters", peak_meters);
    for (std::uint32_t code = 0; code < 32; ++code) {
        if (std::string_view(sample_type_name(code)) != "Other") add_conversions(code);
    }
}

}  // namespace tavistro::bench
