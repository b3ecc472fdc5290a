// Benchmarks of publishing state and statistics. Their cost does not depend on the stream; the
// shapes show the cost per sample of a block.
#include <sys/mman.h>
#include <unistd.h>

#include <vector>

#include "bench/bench.h"
#include "engine/state_record.h"
#include "engine/stats_block.h"

namespace tavistro::bench {
namespace {

/// No running engine uses it.
constexpr std::uint32_t unused_client_id = 4294967295;

void state_snapshot(benchmark::State& state, const Shape& shape) {
    const StateRecord record;
    measure(
        state, shape.batch(), shape.samples(), sizeof(tavistro_engine_state), [] {},
        [&] {
            benchmark::DoNotOptimize(record.snapshot_state());
            return true;
        });
}

/// Measures `write` on an open block.
template <typename Write>
void stats_block_write(benchmark::State& state, const Shape& shape, const Write& write) {
    StatsBlock block;
    if (!block.open(unused_client_id)) {
        state.SkipWithError("cannot create shared memory");
        return;
    }
    measure(
        state, shape.batch(), shape.samples(), sizeof(tavistro_stats_block), [] {},
        [&] {
            write(block);
            return true;
        });
}

void stats_block_client(benchmark::State& state, const Shape& shape) {
    ClientTelemetry telemetry;
    stats_block_write(state, shape, [&](StatsBlock& block) {
        ++telemetry.rtt_samples;
        block.write_client_telemetry(telemetry);
    });
}

void stats_block_player(benchmark::State& state, const Shape& shape) {
    PlayerTelemetry telemetry;
    stats_block_write(state, shape, [&](StatsBlock& block) {
        ++telemetry.renderedFrames;
        block.write_player_telemetry(telemetry);
    });
}

/// Cost of one system call that writes the same number of bytes.
void stats_block_pwrite(benchmark::State& state, const Shape& shape) {
    const std::vector<char> bytes(sizeof(tavistro_stats_block));
    const int object = memfd_create("stats_block_pwrite", 0);
    measure(
        state, shape.batch(), shape.samples(), bytes.size(), [] {},
        [&] { return pwrite(object, bytes.data(), bytes.size(), 0) > 0; });
    close(object);
}

}  // namespace

void add_engine_benches() {
    add_for_every_shape("state_snapshot", state_snapshot);
    add_for_every_shape("stats_block_client", stats_block_client);
    add_for_every_shape("stats_block_player", stats_block_player);
    add_for_every_shape("stats_block_pwrite", stats_block_pwrite);
}

}  // namespace tavistro::bench
