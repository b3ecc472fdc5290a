#include "net/reassembly.h"

#include <algorithm>
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

    slot.silence_rest();
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
    filled = 0;
    received.clear();
}

void Reassembly::Slot::open_for(const AudioFragment& fragment) {
    clear();  // also what is left when memory runs out below
    samples.resize(static_cast<std::size_t>(fragment.frames) * fragment.channels);
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
    // Mostly fragments come in their order, and each continues where the one before ended.
    const std::size_t begin =
        static_cast<std::size_t>(fragment.first_channel) * frames + fragment.first_frame;
    const bool one_piece = fragment.channel_count == 1 || fragment.frame_count == frames;
    if (begin != filled || !one_piece) silence_rest();
    if (filled < samples.size()) filled += fragment.sample_count();

    const std::size_t pieces = one_piece ? 1 : fragment.channel_count;
    const std::size_t piece = fragment.sample_count() / pieces;
    for (std::size_t j = 0; j < pieces; ++j) {
        TavistroProtocol::read_samples(fragment.payload.subspan(j * 4 * piece, 4 * piece),
                                       std::span(samples).subspan(begin + j * frames, piece));
    }
    received[fragment.index] = 1;
    ++received_count;
}

void Reassembly::Slot::silence_rest() {
    std::fill(samples.begin() + static_cast<std::ptrdiff_t>(filled), samples.end(), 0.0F);
    filled = samples.size();
}

}  // namespace tavistro
