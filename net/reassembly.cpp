#include "net/reassembly.h"

#include <algorithm>
#include <span>

namespace tavistro {

using TavistroProtocol::AudioFragment;
using TavistroProtocol::CompletedOutputBlock;

namespace {

/// Index of the fragment's first sample in the planar block.
std::size_t begin_of(const AudioFragment& fragment) noexcept {
    return static_cast<std::size_t>(fragment.first_channel) * fragment.frames +
           fragment.first_frame;
}

/// True if the fragment's samples are contiguous in the block.
bool is_one_piece(const AudioFragment& fragment) noexcept {
    return fragment.channel_count == 1 || fragment.frame_count == fragment.frames;
}

}  // namespace

void Reassembly::reset(std::size_t channels) {
    channels_ = channels;
    clear();
}

void Reassembly::clear() {
    for (ReassemblySlot& slot : slots_)
        slot.clear();
}

void Reassembly::release() {
    slots_ = {};
}

bool Reassembly::offer(const AudioFragment& fragment, CompletedOutputBlock& completed) {
    if (fragment.channels != channels_) return false;
    ReassemblySlot& slot = slots_[fragment.sequence % slot_count];
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

void Reassembly::ReassemblySlot::clear() {
    sequence = sample_rate = 0;
    frames = channels = fragment_count = received_count = 0;
    in_use = false;
    filled = 0;
    waiting.clear();
    waiting_payloads.clear();
    received.clear();
}

void Reassembly::ReassemblySlot::open_for(const AudioFragment& fragment) {
    clear();  // the slot stays clear if memory runs out below
    const auto size = static_cast<std::size_t>(fragment.frames) * fragment.channels;
    if (samples.capacity() < size) samples = {};  // so that reserve copies nothing
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

bool Reassembly::ReassemblySlot::belongs_to(const AudioFragment& fragment) const {
    return in_use && sequence == fragment.sequence && sample_rate == fragment.sample_rate &&
           frames == fragment.frames && channels == fragment.channels &&
           fragment_count == fragment.count;
}

std::size_t Reassembly::ReassemblySlot::sample_count() const {
    return static_cast<std::size_t>(frames) * channels;
}

void Reassembly::ReassemblySlot::store(const AudioFragment& fragment) {
    const bool whole = filled == sample_count();
    const bool continues =
        waiting.empty() && is_one_piece(fragment) && begin_of(fragment) == filled;
    if (whole || continues) {
        if (!whole) filled += fragment.sample_count();
        if (samples.size() < filled) samples.resize(filled);
        put_in_place(fragment, fragment.payload);
    } else {
        // This order leaves a valid state if memory runs out in between.
        const std::size_t offset = waiting_payloads.size();
        waiting_payloads.insert(waiting_payloads.end(), fragment.payload.begin(),
                                fragment.payload.end());
        waiting.push_back({fragment, offset});
        // Limits the memory that overlapping fragments can take.
        if (waiting_payloads.size() >= sample_count() * sizeof(float)) complete();
    }
    received[fragment.index] = 1;
    ++received_count;
}

void Reassembly::ReassemblySlot::put_in_place(const AudioFragment& fragment,
                                              std::span<const std::uint8_t> payload) {
    const std::size_t pieces = is_one_piece(fragment) ? 1 : fragment.channel_count;
    const std::size_t piece = fragment.sample_count() / pieces;
    for (std::size_t j = 0; j < pieces; ++j) {
        TavistroProtocol::read_samples(
            payload.subspan(j * 4 * piece, 4 * piece),
            std::span(samples).subspan(begin_of(fragment) + j * frames, piece));
    }
}

void Reassembly::ReassemblySlot::complete() {
    const std::size_t touched = std::min(samples.size(), sample_count());
    std::fill(samples.begin() + static_cast<std::ptrdiff_t>(filled),
              samples.begin() + static_cast<std::ptrdiff_t>(touched), 0.0F);
    samples.resize(sample_count());
    filled = samples.size();
    for (const Waiting& early : waiting) {
        put_in_place(early.fragment,
                     std::span(waiting_payloads)
                         .subspan(early.payload_offset, 4 * early.fragment.sample_count()));
    }
    waiting.clear();
    waiting_payloads.clear();
}

}  // namespace tavistro
