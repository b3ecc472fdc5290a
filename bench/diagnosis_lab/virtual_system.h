// What stands in for the system: the clock of platform/clock.h and the memory of
// platform/named_memory.h, of the calling thread alone, so that each thread can run a world.
#pragma once

#include <cstdint>
#include <optional>

#include "tavistro/stats_block.h"

namespace tavistro::diagnosis_lab {

/// What every clock of the engine shows from now on, on this thread.
void set_time_ns(std::int64_t ns) noexcept;
std::int64_t time_ns() noexcept;

/// The statistics block that an engine of this thread holds open; nothing when there is none.
std::optional<tavistro_stats_block> published_block() noexcept;

}  // namespace tavistro::diagnosis_lab
