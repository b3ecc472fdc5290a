#include "audio/capture_slots.h"

namespace tavistro {

void CaptureSlots::configure(std::size_t samples_per_slot) {
    release();
    for (CaptureSlot& slot : slots_)
        slot.samples.resize(samples_per_slot);
    has_slots_ = true;
}

void CaptureSlots::release() noexcept {
    has_slots_ = false;
    for (CaptureSlot& slot : slots_)
        slot = {};
    write_.store(0, std::memory_order_relaxed);
    read_.store(0, std::memory_order_relaxed);
    dropped_.store(0, std::memory_order_relaxed);
}

CaptureSlot* CaptureSlots::begin_write() noexcept {
    if (!has_slots_) return nullptr;
    const std::size_t write = write_.load(std::memory_order_relaxed);
    if (next(write) == read_.load(std::memory_order_acquire)) {
        dropped_.fetch_add(1, std::memory_order_relaxed);
        return nullptr;
    }
    return &slots_[write];
}

void CaptureSlots::commit_write() noexcept {
    write_.store(next(write_.load(std::memory_order_relaxed)), std::memory_order_release);
}

bool CaptureSlots::take(CaptureSlot& slot) {
    const std::size_t read = read_.load(std::memory_order_relaxed);
    if (read == write_.load(std::memory_order_acquire)) return false;
    const CaptureSlot& oldest = slots_[read];
    const std::size_t used = std::size_t{oldest.frames} * oldest.channels;
    slot.samples.assign(oldest.samples.data(), oldest.samples.data() + used);
    slot.sample_rate = oldest.sample_rate;
    slot.frames = oldest.frames;
    slot.channels = oldest.channels;
    read_.store(next(read), std::memory_order_release);
    return true;
}

}  // namespace tavistro
