#include "tools/host/event_follower.h"

#include <algorithm>
#include <span>

namespace tavistro::host {

std::vector<NewEvent> EventFollower::take_new(const tavistro_engine_state& state) {
    const std::uint32_t count = std::min(state.event_count, TAVISTRO_MAX_EVENTS);
    std::vector<NewEvent> result;
    for (const tavistro_engine_event& event : std::span(state.events).first(count)) {
        if (event.sequence <= last_sequence_) continue;
        result.push_back({event, event.sequence - last_sequence_ - 1});
        last_sequence_ = event.sequence;
    }
    return result;
}

}  // namespace tavistro::host
