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

void Reassembly::release() {
    slots_ = {};
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

    slot.complete();
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
    waiting.clear();
    waiting_fragments.clear();
    received.clear();
}

void Reassembly::Slot::open_for(const AudioFragment& fragment) {
    clear();  // also what is left when memory runs out below
    const auto size = static_cast<std::size_t>(fragment.frames) * fragment.channels;
    if (samples.capacity() < size) samples = {};  // rather than copied
    samples.reserve(size);
    if (samples.size() > size) samples.resize(size);
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

std::size_t Reassembly::Slot::sample_count() const {
    return static_cast<std::size_t>(frames) * channels;
}

void Reassembly::Slot::store(const AudioFragment& fragment) {
    const std::size_t begin =
        static_cast<std::size_t>(fragment.first_channel) * frames + fragment.first_frame;
    const bool one_piece = fragment.channel_count == 1 || fragment.frame_count == frames;
    const std::size_t count = fragment.sample_count();
    const bool whole = filled == sample_count();
    if (whole || (waiting_fragments.empty() && one_piece && begin == filled)) {
        if (!whole) filled += count;
        if (samples.size() < filled) samples.resize(filled);
        put_in_place(fragment);
    } else {
        waiting_fragments.push_back(fragment);
        waiting.insert(waiting.end(), fragment.payload.begin(), fragment.payload.end());
        // Fragments that overlap could wait without end.
        if (waiting.size() >= sample_count() * sizeof(float)) complete();
    }
    received[fragment.index] = 1;
    ++received_count;
}

void Reassembly::Slot::put_in_place(const AudioFragment& fragment) {
    const std::size_t begin =
        static_cast<std::size_t>(fragment.first_channel) * frames + fragment.first_frame;
    const bool one_piece = fragment.channel_count == 1 || fragment.frame_count == frames;
    const std::size_t pieces = one_piece ? 1 : fragment.channel_count;
    const std::size_t piece = fragment.sample_count() / pieces;
    for (std::size_t j = 0; j < pieces; ++j) {
        TavistroProtocol::read_samples(fragment.payload.subspan(j * 4 * piece, 4 * piece),
                                       std::span(samples).subspan(begin + j * frames, piece));
    }
}

void Reassembly::Slot::complete() {
    const std::size_t touched = std::min(samples.size(), sample_count());
    std::fill(samples.begin() + static_cast<std::ptrdiff_t>(filled),
              samples.begin() + static_cast<std::ptrdiff_t>(touched), 0.0F);
    samples.resize(sample_count());
    filled = samples.size();
    std::span<const std::uint8_t> payloads = waiting;
    for (AudioFragment& fragment : waiting_fragments) {
        fragment.payload = payloads.first(4 * fragment.sample_count());
        payloads = payloads.subspan(fragment.payload.size());
        put_in_place(fragment);
    }
    waiting.clear();
    waiting_fragments.clear();
}

}  // namespace tavistro
