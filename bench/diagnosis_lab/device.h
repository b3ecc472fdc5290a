// The audio device of a world: a card whose periods come when a schedule says so.
#pragma once

#include <cstdint>
#include <memory>

#include "asio/audio_device.h"
#include "audio/loopback_schedule.h"
#include "bench/diagnosis_lab/computer.h"
#include "config/settings.h"

namespace tavistro::diagnosis_lab {

struct PeriodCounts {
    std::int64_t run = 0;
    std::int64_t missed = 0;     ///< that the device's clock had and nobody ran
    std::int64_t doubled = 0;    ///< second calls for one period
    std::int64_t underruns = 0;  ///< silent ones between played ones
};

/// Decides when periods happen and counts them. The schedule is the virtual loopback device's, with
/// two differences, as real cards have them: periods that jitter delays come in a bunch later
/// instead of being dropped, since the card keeps them; and a doubled period asks for a block each
/// time, where the loopback device only captures twice.
class Device {
  public:
    /// `audio` has the stream's format, its queue sizes and the faults; the card runs at
    /// `card_rate`, and says so when it `admits` that.
    Device(const AudioDeviceSettings& audio, std::uint32_t card_rate, bool admits,
           std::int64_t start_ns, Computer& computer, std::uint64_t seed);

    /// What the player opens, once; the device outlives it.
    std::unique_ptr<AudioDevice> make_card();

    /// When the next period's thread wakes, pauses included.
    std::int64_t wakes_at() const noexcept { return wakes_at_; }
    /// Runs the period that wakes_at() was for; the clock shows that time, and afterwards the end
    /// of the period's work.
    void run_period();

    const PeriodCounts& counts() const noexcept { return counts_; }

  private:
    class Card;

    void plan(std::int64_t not_before);
    void advance(std::int64_t now);
    void work();
    void note_output(bool rendered) noexcept;

    Computer& computer_;
    Dice dice_;
    std::uint32_t said_rate_;
    std::uint32_t block_frames_;
    std::uint64_t starve_limit_;
    LoopbackSchedule clock_;   ///< without any jitter: the deadlines themselves
    LoopbackSchedule faults_;  ///< with it
    std::int64_t deadline_ = 0;
    std::int64_t ready_;  ///< the deadline with its jitter, never before the one before
    std::int64_t wakes_at_ = 0;

    BufferSwitchCallback callback_ = nullptr;
    void* context_ = nullptr;
    std::int32_t half_ = 0;
    bool playing_ = false;
    std::uint64_t starved_ = 0;
    PeriodCounts counts_;
};

}  // namespace tavistro::diagnosis_lab
