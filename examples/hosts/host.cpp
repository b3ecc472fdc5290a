// usage: host CONFIG: plays until something is heard. Status 0 when all is well, else the
// number of the step that was not.
#include <tavistro/engine.h>
#include <tavistro/stats_block.h>

#include <chrono>
#include <memory>
#include <thread>

static_assert(sizeof(tavistro_engine_state) == 904 && TAVISTRO_STATE_RECORD_VERSION == 5);
static_assert(sizeof(tavistro_stats_block) == 288);

namespace {

struct Destroy {
    void operator()(tavistro_engine* engine) const { tavistro_engine_destroy(engine); }
};

bool heard(tavistro_engine* engine, tavistro_engine_state& state) {
    for (int waits = 0; waits < 600; ++waits) {
        tavistro_engine_get_state(engine, &state);
        if (state.state == TAVISTRO_STATE_FAILED) return false;
        if (state.state == TAVISTRO_STATE_RUNNING && state.output_meters[0].peak_permille > 0)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 1;
    const std::unique_ptr<tavistro_engine, Destroy> engine(tavistro_engine_create());
    tavistro_engine_state state{};
    if (tavistro_engine_get_state(engine.get(), &state) != 1 || state.version != 5) return 2;
    if (tavistro_engine_start_from_config(engine.get(), argv[1]) != 1) return 3;
    if (!heard(engine.get(), state) || state.stream_sample_rate != 48000) return 4;
    tavistro_engine_stop(engine.get());
    tavistro_engine_get_state(engine.get(), &state);
    return state.state == TAVISTRO_STATE_STOPPED ? 0 : 5;
}
