#include "tools/server/input_ring.h"

#include <algorithm>
#include <utility>

namespace tavistro::server {

using TavistroProtocol::AudioFragment;
using TavistroProtocol::is_newer;

namespace {

/// A block has many fragments but counts once: fragments of one block come together.
void count_block(std::uint64_t& count, std::uint32_t& last, std::uint32_t sequence) {
    if (count != 0 && last == sequence) return;
    ++count;
    last = sequence;
}

void copy_rectangle(const AudioFragment& fragment, std::span<float> samples) {
    const std::size_t run_bytes = fragment.frame_count * sizeof(float);
    for (std::size_t channel = 0; channel < fragment.channel_count; ++channel) {
        const std::size_t start =
            (fragment.first_channel + channel) * fragment.frames + fragment.first_frame;
        TavistroProtocol::read_samples(fragment.payload.subspan(channel * run_bytes, run_bytes),
                                       samples.subspan(start, fragment.frame_count));
    }
}

}  // namespace

InputCounters& InputCounters::operator+=(const InputCounters& other) noexcept {
    complete += other.complete;
    incomplete += other.incomplete;
    missing += other.missing;
    late += other.late;
    early += other.early;
    mismatched += other.mismatched;
    duplicates += other.duplicates;
    gaps += other.gaps;
    return *this;
}

void InputRing::accept(const AudioFragment& fragment, std::uint32_t next_sequence) {
    const StreamFormat format{fragment.sample_rate, fragment.frames};
    if (format != format_ || fragment.channels != channels_) {
        ++counters_.mismatched;
        return;
    }
    if (!first_sequence_) first_sequence_ = fragment.sequence;
    if (is_newer(next_sequence, fragment.sequence)) {
        count_block(counters_.late, last_late_, fragment.sequence);
        return;
    }
    if (fragment.sequence - next_sequence >= block_count) {
        count_block(counters_.early, last_early_, fragment.sequence);
        return;
    }
    Slot& slot = slot_of(fragment.sequence);
    // A slot of another block is left over from one that was skipped.
    if (!slot.in_use || slot.sequence != fragment.sequence) open(slot, fragment);
    if (slot.fragments.size() != fragment.count) {
        ++counters_.mismatched;
        return;
    }
    if (slot.fragments[fragment.index]) {
        ++counters_.duplicates;
        return;
    }
    slot.fragments[fragment.index] = true;
    ++slot.received;
    copy_rectangle(fragment, slot.samples);
}

std::span<const float> InputRing::take(std::uint32_t sequence) {
    Slot& slot = slot_of(sequence);
    if (!slot.in_use || slot.sequence != sequence) {
        if (first_sequence_ && !is_newer(*first_sequence_, sequence)) ++counters_.missing;
        return {};
    }
    ++(slot.received == slot.fragments.size() ? counters_.complete : counters_.incomplete);
    std::swap(taken_, slot.samples);
    recycle(slot);
    if (channels_ != 0) count_gaps(std::span(taken_).first(format_.frames));
    return taken_;
}

void InputRing::count_gaps(std::span<const float> channel) {
    for (const float sample : channel) {
        if (sample != 0.0F) {
            if (silent_frames_.value_or(0) >= least_gap_frames) ++counters_.gaps;
            silent_frames_ = 0;
        } else if (silent_frames_) {
            ++*silent_frames_;
        }
    }
}

void InputRing::open(Slot& slot, const AudioFragment& fragment) {
    if (slot.in_use) recycle(slot);
    if (!spare_.empty()) {
        slot.samples = std::move(spare_.back());
        spare_.pop_back();
    }
    slot.in_use = true;
    slot.sequence = fragment.sequence;
    slot.received = 0;
    slot.fragments.assign(fragment.count, false);
    slot.samples.assign(channels_ * format_.frames, 0.0F);
}

void InputRing::recycle(Slot& slot) {
    slot.in_use = false;
    spare_.push_back(std::move(slot.samples));
    slot.samples.clear();
}

}  // namespace tavistro::server
