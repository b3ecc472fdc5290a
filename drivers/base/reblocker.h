// Between a device whose periods have any length and a host whose blocks have a fixed one.
//
// It holds counts only: the frames that wait are in the host's own buffer halves, so every frame
// is copied once in each direction and no period is too long.
#pragma once

#include <algorithm>
#include <cstddef>
#include <numeric>

#include "platform/realtime.h"

namespace tavistro::drivers {

/// Frames of delay from input to output that are added to the device's own. None when the period
/// is a multiple of the block.
///
/// With f input frames that wait for a full block and o output frames that wait for a period,
/// f + o is constant. f takes each multiple of g = gcd(period, block) up to block - g, and o is
/// never negative: hence f + o >= block - g. That is enough, since f <= block - g at each end of a
/// period leaves o >= 0.
TAVISTRO_REALTIME constexpr std::size_t reblocking_delay(std::size_t period, std::size_t block) {
    return block - std::gcd(period, block);
}

/// One thread at a time. All counts are frames.
class Reblocker {
  public:
    Reblocker() = default;
    /// Before the first period, and after a stop. `block` is at least 1.
    void start(std::size_t block) { *this = Reblocker(block); }

    /// Passes a period of `frames`, at least 1, through the blocks that it completes. Calls
    ///     read_inputs(block_at, period_at, count)   into the block that is being filled
    ///     run_block(period_at)    the block is full; period_at is the frame after its last one
    ///     write_outputs(block_at, period_at, count) from the block that ran last
    ///     write_silence(period_at, count)
    /// of the device. Each frame of the period is read once and written once, in order.
    /// Returns whether the audio was interrupted, which only a new period length can do.
    template <typename Device>
    TAVISTRO_REALTIME bool run_period(std::size_t frames, Device& device) {
        const bool interrupted = frames != period_ && change_period(frames);
        std::size_t written = 0;
        for (std::size_t read = 0; read < frames;) {
            const std::size_t count = std::min(block_ - filled_, frames - read);
            device.read_inputs(filled_, read, count);
            filled_ += count;
            read += count;
            if (filled_ < block_) break;
            // The delay is such that what waits fits here: the block that ran last is done with.
            written += write(written, frames, device);
            device.run_block(read);
            filled_ = 0;
            waiting_ = block_;
            written += write(written, frames, device);
        }
        write(written, frames, device);
        return interrupted;
    }

  private:
    explicit Reblocker(std::size_t block) : block_(block) {}

    template <typename Device>
    TAVISTRO_REALTIME std::size_t write(std::size_t at, std::size_t frames, Device& device) {
        const std::size_t count = std::min(waiting_, frames - at);
        if (count > 0) device.write_outputs(block_ - waiting_, at, count);
        waiting_ -= count;
        const std::size_t silent = std::min(silence_, frames - at - count);
        if (silent > 0) device.write_silence(at + count, silent);
        silence_ -= silent;
        return count + silent;
    }

    /// Keeps what waits as far as the new delay allows: a change that needs the same delay is not
    /// heard.
    TAVISTRO_REALTIME bool change_period(std::size_t frames) {
        const bool is_first = period_ == 0;
        period_ = frames;
        const std::size_t excess = filled_ % std::gcd(frames, block_);
        filled_ -= excess;
        const std::size_t waited = waiting_ + silence_;
        const std::size_t to_wait = reblocking_delay(frames, block_) - filled_;
        waiting_ = std::min(waiting_, to_wait);
        silence_ = to_wait - waiting_;
        return !is_first && (excess > 0 || to_wait != waited);
    }

    std::size_t block_ = 1;
    std::size_t period_ = 0;   ///< 0: none yet
    std::size_t filled_ = 0;   ///< inputs in the block that is being filled
    std::size_t waiting_ = 0;  ///< outputs at the end of the block that ran last
    std::size_t silence_ = 0;  ///< outputs after these
};

}  // namespace tavistro::drivers
