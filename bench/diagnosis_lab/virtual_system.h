// Replaces the clock of platform/clock.h and the memory of platform/named_memory.h. Both are
// thread-local, so that each thread can run a world.
#pragma once

#include <cstdint>
#include <optional>

#include "tavistro/stats_block.h"

namespace tavistro::diagnosis_lab {

/// Sets all clocks of the engine on this thread.
void set_time_ns(std::int64_t ns) noexcept;
std::int64_t time_ns() noexcept;

/// The statistics block that an engine on this thread has open, if any.
std::optional<tavistro_stats_block> published_block() noexcept;

}  // namespace tavistro::diagnosis_lab
