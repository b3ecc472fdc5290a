// The five exported functions. They throw nothing.
#include <cstring>
#include <mutex>

#include "engine/engine_runtime.h"
#include "tavistro/engine.h"

struct tavistro_engine {
    tavistro::EngineRuntime runtime;
};

static_assert(TAVISTRO_STATE_RECORD_VERSION == TAVISTRO_SONAME_VERSION,
              "the project's major version, which the soname carries, must be the state record's");

namespace {

std::mutex engine_mutex;
/// The engine of this process, owned by the host. If the host never destroys it, it is deliberately
/// leaked: at process exit its threads may no longer be joinable.
tavistro_engine* the_engine = nullptr;

}  // namespace

tavistro_engine* tavistro_engine_create(void) {
    const std::lock_guard lock(engine_mutex);
    if (the_engine) return nullptr;
    try {
        the_engine = new tavistro_engine;
    } catch (...) {  // out of memory
    }
    return the_engine;
}

int32_t tavistro_engine_start_from_config(tavistro_engine* engine, const char* path) {
    return engine && engine->runtime.start(path) ? 1 : 0;
}

int32_t tavistro_engine_get_state(tavistro_engine* engine, void* buffer) {
    if (!engine || !buffer) return 0;
    const tavistro_engine_state state = engine->runtime.snapshot_state();
    std::memcpy(buffer, &state, sizeof state);
    return 1;
}

void tavistro_engine_stop(tavistro_engine* engine) {
    if (engine) engine->runtime.stop();
}

void tavistro_engine_destroy(tavistro_engine* engine) {
    if (!engine) return;
    engine->runtime.stop();
    {
        const std::lock_guard lock(engine_mutex);
        if (the_engine == engine) the_engine = nullptr;
    }
    delete engine;
}
