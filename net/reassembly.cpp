#include "net/reassembly.h"

#include <span>

namespace tavistro {

using TavistroProtocol::AudioFragment;
using TavistroProtocol::CompletedOutputBlock;

void Reassembly::reset(std::size_t channels) {
    channels_ = channels;
    clear();
}

void Reassembly::clear() {
    for (Slot& slot : slots_)
        slot.clear();
}

bool Reassembly::offer(const AudioFragment& fragment, CompletedOutputBlock& completed) {
    if (fragment.channels != channels_) return false;
    Slot& slot = slots_[fragment.sequence % slot_count];
    if (slot.in_use && slot.sequence != fragment.sequence &&
        !TavistroProtocol::is_newer(fragment.sequence, slot.sequence)) {
        return false;
    }
    if (!slot.belongs_to(fragment)) slot.open_for(fragment);
    if (slot.received[fragment.index] != 0) return false;
    slot.store(fragment);
    if (slot.received_count != slot.fragment_count) return false;

    completed.sequence = slot.sequence;
    completed.sample_rate = slot.sample_rate;
    completed.frames = slot.frames;
    completed.channels = slot.channels;
    completed.samples.swap(slot.samples);
    slot.clear();
    return true;
}

void Reassembly::Slot::clear() {
    sequence = sample_rate = 0;
    frames = channels = fragment_count = received_count = 0;
    in_use = false;
    samples.clear();
    received.clear();
}

void Reassembly::Slot::open_for(const AudioFragment& fragment) {
    clear();  // also what is left when memory runs out below
    samples.assign(static_cast<std::size_t>(fragment.frames) * fragment.channels, 0.0F);
    received.assign(fragment.count, 0);
    sequence = fragment.sequence;
    sample_rate = fragment.sample_rate;
    frames = fragment.frames;
    channels = fragment.channels;
    fragment_count = fragment.count;
    in_use = true;
}

bool Reassembly::Slot::belongs_to(const AudioFragment& fragment) const {
    return in_use && sequence == fragment.sequence && sample_rate == fragment.sample_rate &&
           frames == fragment.frames && channels == fragment.channels &&
           fragment_count == fragment.count;
}

void Reassembly::Slot::store(const AudioFragment& fragment) {
    const std::size_t run_bytes = 4 * static_cast<std::size_t>(fragment.frame_count);
    for (std::size_t j = 0; j < fragment.channel_count; ++j) {
        const std::size_t first = (fragment.first_channel + j) * frames + fragment.first_frame;
        TavistroProtocol::read_samples(fragment.payload.subspan(j * run_bytes, run_bytes),
                                       std::span(samples).subspan(first, fragment.frame_count));
    }
    received[fragment.index] = 1;
    ++received_count;
}

}  // namespace tavistro
