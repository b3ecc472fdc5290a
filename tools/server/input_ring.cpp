#include "tools/server/input_ring.h"

#include <algorithm>
#include <utility>

namespace tavistro::server {

using TavistroProtocol::AudioFragment;
using TavistroProtocol::is_newer;

namespace {

/// Counts a block once although it has several fragments. Fragments of one block arrive in a row.
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
    Block& block = blocks_[fragment.sequence];
    if (block.fragments.empty()) {
        block.fragments.resize(fragment.count);
        block.samples.resize(channels_ * format_.frames);
    }
    if (block.fragments.size() != fragment.count) {
        ++counters_.mismatched;
        return;
    }
    if (block.fragments[fragment.index]) {
        ++counters_.duplicates;
        return;
    }
    block.fragments[fragment.index] = true;
    ++block.received;
    copy_rectangle(fragment, block.samples);
}

std::vector<float> InputRing::take(std::uint32_t sequence) {
    auto taken = blocks_.extract(sequence);
    std::erase_if(blocks_,
                  [sequence](const auto& block) { return is_newer(sequence, block.first); });
    if (taken.empty()) {
        if (first_sequence_ && !is_newer(*first_sequence_, sequence)) ++counters_.missing;
        return {};
    }
    Block& block = taken.mapped();
    ++(block.received == block.fragments.size() ? counters_.complete : counters_.incomplete);
    if (channels_ != 0) count_gaps(std::span(block.samples).first(format_.frames));
    return std::move(block.samples);
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

}  // namespace tavistro::server
