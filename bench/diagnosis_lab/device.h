// The simulated audio device of a world: a schedule starts its periods.
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
    std::int64_t missed = 0;     ///< due by the device clock but not run
    std::int64_t doubled = 0;    ///< repeated calls for one period
    std::int64_t underruns = 0;  ///< silent periods during playback
};

/// Schedules the periods and counts them. It uses the virtual loopback device's schedule with two
/// differences, which match real cards: periods delayed by jitter run later in a burst instead of
/// being dropped, because the card buffers them; and a doubled period requests a block each time,
/// while the loopback device only captures twice.
class Device {
  public:
    /// `audio` has the stream's format, the queue sizes and the faults. The card runs at
    /// `card_rate`. It reports that rate if `admits`, else the stream's.
    Device(const AudioDeviceSettings& audio, std::uint32_t card_rate, bool admits,
           std::int64_t start_ns, Computer& computer, std::uint64_t seed);

    /// The device that the player opens; call it once. This object must outlive it.
    std::unique_ptr<AudioDevice> make_card();

    /// When the device thread wakes for the next period, pauses included.
    std::int64_t wakes_at() const noexcept { return wakes_at_; }
    /// Runs the next period. Set the clock to wakes_at() before; afterwards it shows the end of the
    /// period's work.
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
    LoopbackSchedule clock_;   ///< the deadlines, without jitter
    LoopbackSchedule faults_;  ///< the same with jitter and faults
    std::int64_t deadline_ = 0;
    std::int64_t ready_;  ///< deadline plus jitter; never decreases
    std::int64_t wakes_at_ = 0;

    BufferSwitchCallback callback_ = nullptr;
    void* context_ = nullptr;
    std::int32_t half_ = 0;
    bool playing_ = false;
    std::uint64_t starved_ = 0;
    PeriodCounts counts_;
};

}  // namespace tavistro::diagnosis_lab
