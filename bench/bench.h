// How the benches measure: an operation beside a memcpy of as many bytes.
//
// Machines and moments differ by more than what a change of code makes out, so what counts is the
// ratio of the two. They take turns batch by batch, and each is told by its median batch, which a
// preempted one does not move.
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
    /// Of the samples as float.
    std::size_t bytes() const noexcept { return samples() * sizeof(float); }
    /// Operations that are timed at once, against the clock's own cost. Few enough for their
    /// blocks to fit the buffers of an engine.
    std::size_t batch() const noexcept;
};

/// Adds `name`/<channels>/<frames> for 2, 8 and 32 channels and 32, 64, 128 and 512 frames.
void add_for_every_shape(const std::string& name,
                         const std::function<void(benchmark::State&, const Shape&)>& function);

void add_audio_benches();
void add_net_benches();
void add_engine_benches();
void add_system_benches();

/// The same noise between +-0.5 every time.
std::vector<float> noise(std::size_t samples);

/// The clock's own cost, taken off every batch.
double clock_cost_ns();
double median(std::vector<double> values);

/// memcpy from one buffer to another, both hot.
class MemoryCopy {
  public:
    explicit MemoryCopy(std::size_t bytes) : from_(bytes, 1), to_(bytes) {}
    bool operator()();

  private:
    // Aligned: some processors take twenty times as long when the destination lies a little
    // further behind the beginning of its page than the source.
    CacheLineVector<unsigned char> from_;
    CacheLineVector<unsigned char> to_;
};

/// Time of `count` operations. False when one of them did not do its work.
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

/// Runs `operation`, which returns whether it did its work, with an untimed `prepare` before each
/// batch. Sets the counters ns_per_sample (for `samples` channel-samples) and memcpy_ratio (to a
/// memcpy of `bytes`).
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

/// The same beside a memcpy of the block.
template <typename Prepare, typename Operation>
void measure(benchmark::State& state, const Shape& shape, Prepare prepare, Operation operation) {
    measure(state, shape.batch(), shape.samples(), shape.bytes(), prepare, operation);
}

}  // namespace tavistro::bench
