#include "tools/readings/stats_reader.h"

#include <bit>
#include <cstring>

#include "tavistro/engine.h"

namespace tavistro::readings {

std::optional<tavistro_stats_block> StatsReader::read() const {
    Words words;
    if (!copy_to(words)) return std::nullopt;
    const auto block = std::bit_cast<tavistro_stats_block>(words);
    const bool known = std::memcmp(block.magic, TAVISTRO_STATS_MAGIC, sizeof block.magic) == 0 &&
                       block.layout_version == TAVISTRO_STATS_LAYOUT_VERSION;
    if (!known) return std::nullopt;
    return block;
}

bool engine_plays_as(std::uint32_t client_id) {
    StatsReader reader;
    reader.open(client_id);
    const auto block = reader.read();
    const bool shows_a_run = block && (block->state == TAVISTRO_STATE_CONNECTED ||
                                       block->state == TAVISTRO_STATE_RUNNING ||
                                       block->state == TAVISTRO_STATE_RESTARTING);
    return shows_a_run && reader.is_held();
}

}  // namespace tavistro::readings
