// Measures an operation relative to a memcpy of the same number of bytes.
//
// Absolute times vary more between machines and runs than through a code change, so compare the
// ratios. Batches of the operation and of the memcpy alternate. The result is the median batch of
// each, which preempted batches hardly affect.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "common/cache_line.h"

namespace tavistro::bench {

struct Shape {
    std::uint16_t channels;
    std::uint16_t frames;
    std::size_t samples() const noexcept { return std::size_t{channels} * frames; }
    /// Size of the samples as float.
    std::size_t bytes() const noexcept { return samples() * sizeof(float); }
    /// Operations per timed batch. Several, so that the cost of reading the clock matters less; few
    /// enough for their blocks to fit the engine's buffers.
    std::size_t batch() const noexcept;
};

/// Adds `name`/<channels>/<frames> for 2, 8 and 32 channels and 32, 64, 128 and 512 frames.
void add_for_every_shape(const std::string& name,
                         const std::function<void(benchmark::State&, const Shape&)>& function);

void add_audio_benches();
void add_net_benches();
void add_engine_benches();
void add_system_benches();

/// Noise within +-0.5, the same at every call.
std::vector<float> noise(std::size_t samples);

/// Cost of reading the clock, subtracted from every batch.
double clock_cost_ns();
double median(std::vector<double> values);

/// memcpy between two buffers that stay in the cache.
class MemoryCopy {
  public:
    explicit MemoryCopy(std::size_t bytes) : from_(bytes, 1), to_(bytes) {}
    bool operator()();

  private:
    // Aligned: some processors take twenty times as long when the destination's page offset is
    // slightly larger than the source's.
    CacheLineVector<unsigned char> from_;
    CacheLineVector<unsigned char> to_;
};

/// Times `count` operations. False when one of them failed.
template <typename Operation>
bool time_batch(std::size_t count, Operation& operation, double& taken_ns) {
    using Clock = std::chrono::steady_clock;
    bool worked = true;
    const Clock::time_point start = Clock::now();
    for (std::size_t i = 0; i < count; ++i)
        worked &= operation();
    const std::chrono::duration<double, std::nano> taken = Clock::now() - start;
    taken_ns = std::max(0.0, taken.count() - clock_cost_ns());
    return worked;
}

/// Runs batches of `operation`, which returns whether it succeeded, each after an untimed
/// `prepare`. Sets the counters ns_per_sample (an operation processes `samples` samples of all
/// channels) and memcpy_ratio (relative to a memcpy of `bytes`).
template <typename Prepare, typename Operation>
void measure(benchmark::State& state, std::size_t batch, std::size_t samples, std::size_t bytes,
             Prepare prepare, Operation operation) {
    MemoryCopy copy(bytes);
    std::vector<double> operation_ns;
    std::vector<double> copy_ns;
    while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(batch))) {
        prepare();
        if (!time_batch(batch, operation, operation_ns.emplace_back())) {
            state.SkipWithError("the operation failed");
            return;
        }
        state.SetIterationTime(operation_ns.back() * 1e-9);
        time_batch(batch, copy, copy_ns.emplace_back());
    }
    const double typical_ns = median(std::move(operation_ns)) / static_cast<double>(batch);
    const double copy_typical_ns = median(std::move(copy_ns)) / static_cast<double>(batch);
    state.counters["ns_per_sample"] = typical_ns / static_cast<double>(samples);
    state.counters["memcpy_ratio"] = typical_ns / copy_typical_ns;
}

/// As above, relative to a memcpy of the block.
template <typename Prepare, typename Operation>
void measure(benchmark::State& state, const Shape& shape, Prepare prepare, Operation operation) {
    measure(state, shape.batch(), shape.samples(), shape.bytes(), prepare, operation);
}

}  // namespace tavistro::bench
