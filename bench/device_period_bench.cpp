// What one period of a device costs the engine, beside a copy of the same bytes.
//
// 32 channels in and out, 128 frames, packed 24-bit samples: the whole period path, from reading
// the inputs to writing the outputs, with the playback buffer at its target fill.

#include <benchmark/benchmark.h>

#include <array>
#include <chrono>
#include <cstring>
#include <vector>

#include "asio/sample_format.h"
#include "audio/period_path.h"

namespace tavistro {
namespace {

constexpr std::size_t channels = 32;
constexpr std::int32_t frames = 128;
constexpr std::uint32_t int24_little_endian = 17;
constexpr std::size_t channel_bytes = 3 * frames;

using DriverBuffers = std::array<std::vector<unsigned char>, channels>;

/// Buffers in memory where a driver has its own.
class MemoryDevice : public AudioDevice {
  public:
    MemoryDevice() {
        for (auto* buffers : {&inputs_, &outputs_}) {
            for (auto& buffer : *buffers)
                buffer.assign(channel_bytes, 0x35);
        }
    }
    bool open(const AudioDeviceSettings&, LogCallback, BufferSwitchCallback, void*) override {
        return true;
    }
    bool start() override { return true; }
    void close() override {}
    void read_input(std::int32_t channel, std::int32_t, float* destination,
                    std::int32_t count) override {
        samples_to_float(inputs_[static_cast<std::size_t>(channel)].data(), int24_little_endian,
                         {destination, static_cast<std::size_t>(count)});
    }
    void write_output(std::int32_t channel, std::int32_t, const float* source,
                      std::int32_t count) override {
        auto* buffer = outputs_[static_cast<std::size_t>(channel)].data();
        if (source == nullptr) {
            write_silence(buffer, int24_little_endian, static_cast<std::size_t>(count));
        } else {
            samples_from_float(buffer, int24_little_endian,
                               {source, static_cast<std::size_t>(count)});
        }
    }
    bool output_ready() override { return true; }
    bool reset_requested() override { return false; }

  private:
    DriverBuffers inputs_;
    DriverBuffers outputs_;
};

/// `off_target_blocks` moves the fill away from the target: the render then interpolates.
void device_period(benchmark::State& state, std::uint64_t off_target_blocks) {
    PeriodPath periods;
    constexpr std::uint64_t target_blocks = 6;
    periods.prepare({.sample_rate = 48000.0,
                     .block_frames = frames,
                     .output_channels = channels,
                     .input_channels = channels,
                     .capture = true,
                     .prebuffer_blocks = target_blocks,
                     .target_queue_depth = target_blocks,
                     .max_queue_blocks = target_blocks + 4});
    const std::vector<float> samples(channels * frames, 0.25F);
    const auto push = [&] {
        periods.playback().push_block({.sequence = 1,
                                       .sample_rate = 48000,
                                       .frames = frames,
                                       .channels = channels,
                                       .samples = samples});
    };
    for (std::uint64_t i = 0; i < target_blocks - 1 + off_target_blocks; ++i)
        push();
    MemoryDevice device;
    CaptureSlot captured;
    std::int32_t half = 0;
    for (auto _ : state) {
        push();
        while (periods.take_captured(captured)) {
        }
        const auto start = std::chrono::steady_clock::now();
        periods.run_device_period(device, half);
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(elapsed.count());
        half = 1 - half;
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * 2 * channels) *
                            static_cast<std::int64_t>(channel_bytes));
}
BENCHMARK_CAPTURE(device_period, direct, 0)->UseManualTime();
BENCHMARK_CAPTURE(device_period, interpolated, 1)->UseManualTime();

/// The driver's bytes of one period, copied once.
void memcpy_same_bytes(benchmark::State& state) {
    const std::vector<unsigned char> from(2 * channels * channel_bytes, 0x35);
    std::vector<unsigned char> to(from.size());
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), from.size());
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(from.size()));
}
BENCHMARK(memcpy_same_bytes);

}  // namespace
}  // namespace tavistro
