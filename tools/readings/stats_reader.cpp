#include "tools/readings/stats_reader.h"

#include <bit>
#include <cstring>

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

}  // namespace tavistro::readings
