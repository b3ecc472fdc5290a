// Picks the new events out of successive state records.
#pragma once

#include <cstdint>
#include <vector>

#include "tavistro/engine.h"

namespace tavistro::host {

struct NewEvent {
    tavistro_engine_event event;
    std::uint64_t missed_before;  ///< events that came and went unseen just before this one
};

/// Follows one run: its sequence numbers start at 1.
class EventFollower {
  public:
    /// The events that no earlier record showed, oldest first.
    std::vector<NewEvent> take_new(const tavistro_engine_state& state);

  private:
    std::uint64_t last_sequence_ = 0;
};

}  // namespace tavistro::host
