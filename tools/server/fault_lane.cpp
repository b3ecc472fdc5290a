#include "tools/server/fault_lane.h"

#include <algorithm>

namespace tavistro::server {

namespace {

/// Jitter is modelled as a queue that occasionally fills and drains: this share of the datagrams is
/// delayed, and the datagrams behind a delayed one wait for it.
constexpr double hold_up_chance = 1.0 / 16;
constexpr double reorder_delay_blocks = 2.0;

/// True in the last `length` of every `period` blocks; false when `period` is 0.
bool in_last_part(std::uint64_t index, std::uint64_t period, std::uint64_t length) noexcept {
    return period != 0 && index % period + length >= period;
}

}  // namespace

Passage FaultLane::pass(const FaultOptions& faults, const StreamFormat& format,
                        std::uint64_t block_index, std::uint64_t now_ns) {
    // Draw every number for every datagram, so that one fault does not change another's random
    // choices.
    const bool dropped = 100 * draw() < faults.drop_percent;
    const bool duplicated = 100 * draw() < faults.duplicate_percent;
    const bool reordered = 100 * draw() < faults.reorder_percent;
    const bool held_up = draw() < hold_up_chance;
    const double hold_up_ms = draw() * faults.jitter_ms;
    if (dropped || line_is_dead(faults, format, block_index)) return {.copies = 0};

    const double delay_ms =
        (held_up ? hold_up_ms : 0.0) + (reordered ? reorder_delay_blocks * format.block_ms() : 0.0);
    std::uint64_t due_ns = now_ns + static_cast<std::uint64_t>(delay_ms * 1e6);
    if (!reordered) due_ns = last_due_ns_ = std::max(last_due_ns_, due_ns);
    return {.copies = duplicated ? 2U : 1U, .held_back = reordered, .due_ns = due_ns};
}

double FaultLane::draw() {
    return static_cast<double>(random_() >> 11) * 0x1p-53;
}

bool line_is_dead(const FaultOptions& faults, const StreamFormat& format,
                  std::uint64_t block_index) noexcept {
    return faults.burst_length_blocks != 0 &&
           in_last_part(block_index, format.blocks_in_ms(faults.burst_every_ms),
                        faults.burst_length_blocks);
}

bool sync_is_paused(const FaultOptions& faults, const StreamFormat& format,
                    std::uint64_t block_index) noexcept {
    return faults.pause_for_ms != 0 &&
           in_last_part(block_index, format.blocks_in_ms(faults.pause_every_ms),
                        format.blocks_in_ms(faults.pause_for_ms));
}

}  // namespace tavistro::server
