#include "tools/host/twin_check.h"

#include <ostream>

#include "config/engine_config.h"
#include "tavistro/engine.h"
#include "tools/readings/stats_reader.h"

namespace tavistro::host {

namespace {

bool shows_a_run(const tavistro_stats_block& block) {
    return block.state == TAVISTRO_STATE_CONNECTED || block.state == TAVISTRO_STATE_RUNNING ||
           block.state == TAVISTRO_STATE_RESTARTING;
}

}  // namespace

bool engine_plays_as(std::uint32_t client_id) {
    readings::StatsReader reader;
    if (!reader.open(client_id)) return false;
    const auto block = reader.read();
    return block && shows_a_run(*block) && reader.is_held();
}

void warn_of_twin(const std::string& config_path, std::ostream& errors) {
    EngineConfig config;
    std::string ignored;
    if (!load_engine_config(config_path, config, ignored)) return;
    const std::uint32_t client_id = config.client.client_id;
    if (!engine_plays_as(client_id)) return;
    errors << "warning: an engine with client_id " << client_id
           << " runs on this computer already; give each a client_id of its own" << std::endl;
}

}  // namespace tavistro::host
