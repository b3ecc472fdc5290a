#include "tools/monitor/tally.h"

namespace tavistro::monitor {

void Tally::look(std::int64_t now_us, std::int64_t overslept_us,
                 const tavistro_stats_block& block) {
    static_cast<void>(now_us);
    static_cast<void>(overslept_us);
    static_cast<void>(block);
}

}  // namespace tavistro::monitor
