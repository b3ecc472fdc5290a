// What the engine shows to others. It does not depend on the stream; the shapes say what it adds
// to each sample of a block.
#include "bench/bench.h"
#include "engine/state_record.h"
#include "engine/stats_block.h"

namespace tavistro::bench {
namespace {

/// That of no running engine.
constexpr std::uint32_t unused_client_id = 4294967295;

void state_snapshot(benchmark::State& state, const Shape& shape) {
    const StateRecord record;
    measure(
        state, shape.batch(), shape.samples(), sizeof(tavistro_engine_state), [] {},
        [&] {
            benchmark::DoNotOptimize(record.snapshot());
            return true;
        });
}

void stats_block_write(benchmark::State& state, const Shape& shape) {
    StatsBlock block;
    if (!block.open(unused_client_id)) {
        state.SkipWithError("no shared memory");
        return;
    }
    PlayerTelemetry telemetry;
    measure(
        state, shape.batch(), shape.samples(), sizeof(tavistro_stats_block), [] {},
        [&] {
            ++telemetry.callbacks_total;
            block.write_player_telemetry(telemetry);
            return true;
        });
}

}  // namespace

void add_engine_benches() {
    add_for_every_shape("state_snapshot", state_snapshot);
    add_for_every_shape("stats_block_write", stats_block_write);
}

}  // namespace tavistro::bench
