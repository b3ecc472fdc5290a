#include "tools/host/twin_check.h"

#include <chrono>
#include <cstring>
#include <ostream>
#include <thread>

#include "config/engine_config.h"
#include "tavistro/engine.h"
#include "tools/host/stats_reader.h"

namespace tavistro::host {

namespace {

using namespace std::chrono_literals;

constexpr auto between_reports = 1500ms;  // a second, and what a busy computer adds
constexpr auto poll_period = 50ms;

bool shows_a_run(const tavistro_stats_block& block) {
    return block.state == TAVISTRO_STATE_CONNECTED || block.state == TAVISTRO_STATE_RUNNING ||
           block.state == TAVISTRO_STATE_RESTARTING;
}

}  // namespace

bool engine_plays_as(std::uint32_t client_id) {
    StatsReader reader;
    if (!reader.open(client_id)) return false;
    const auto first = reader.read();
    const auto give_up = std::chrono::steady_clock::now() + between_reports;
    auto now = first;
    // A process that was killed leaves a block that shows a run for ever.
    while (first && now && shows_a_run(*now)) {
        if (std::memcmp(&*first, &*now, sizeof *now) != 0) return true;
        if (std::chrono::steady_clock::now() > give_up) return false;
        std::this_thread::sleep_for(poll_period);
        now = reader.read();
    }
    return false;
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
