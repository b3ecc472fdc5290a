// The player's work in each device period: update the drift estimate, capture, render, write and
// measure. run_device_period() does all of it for a real device; loopback_device.cpp combines the
// steps for the virtual one.
//
// The device thread (the driver's or the loopback thread) runs the periods without a lock. Other
// threads feed the playback buffer, take captured periods and read the counters. prepare()
// allocates everything that a period needs.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

#include "asio/audio_device.h"
#include "audio/capture_slots.h"
#include "audio/peak_meters.h"
#include "audio/playback_block.h"
#include "audio/playback_buffer.h"
#include "audio/player_telemetry.h"
#include "config/settings.h"
#include "platform/realtime.h"

namespace tavistro {

class PeriodPath {
  public:
    // No other thread may use the path during prepare() and release().

    /// Allocates for a device that runs at `sample_rate` Hz with periods of `block_frames`, and
    /// resets all counters. Uses the sizes of the channel maps and of the playback buffer from the
    /// settings. `capture`: the captured input has a consumer. Throws std::bad_alloc or
    /// std::length_error if memory runs out.
    void prepare(const AudioDeviceSettings& settings, double sample_rate, std::int32_t block_frames,
                 bool capture);
    /// Frees what prepare() has allocated. Blocks are then rejected and nothing is captured.
    void release() noexcept;

    /// Runs one period of a real device with the free half of its buffers. Device thread.
    TAVISTRO_REALTIME void run_device_period(AudioDevice& device,
                                             std::int32_t buffer_index) noexcept;

    // The steps of a period, in order. Device thread.

    /// Counts a period and determines whether its meters are due.
    TAVISTRO_REALTIME void count_period() noexcept;
    /// Updates the drift estimate from the sync notices.
    TAVISTRO_REALTIME void follow_drift() noexcept;
    /// Renders the period's block. `start` is the performance counter at the start of the period.
    TAVISTRO_REALTIME void render(std::int64_t start) noexcept;
    /// Updates the output meters from the rendered block, if any, when they are due.
    TAVISTRO_REALTIME void meter_outputs() noexcept;
    /// Captures output channel i of the rendered block as input channel i; zeros without such an
    /// output, without a rendered block or with `input_silent`.
    TAVISTRO_REALTIME void loop_back(bool input_silent) noexcept;
    /// Adds the period's frames to the consumed frames of the drift estimate.
    TAVISTRO_REALTIME void count_frames() noexcept;
    /// Records the processing time from two performance counter values; ignored if `end` is before
    /// `start`.
    TAVISTRO_REALTIME void record_duration(std::int64_t start, std::int64_t end) noexcept;

    PlaybackBuffer& playback() noexcept { return playback_; }
    const PlaybackBuffer& playback() const noexcept { return playback_; }
    /// Removes the oldest captured period. One thread at a time.
    bool take_captured(CaptureSlot& slot) { return capture_ring_.take(slot); }

    /// Returns the measurements without per-second values and peaks, and starts a new interval of
    /// the fill statistics. One thread at a time.
    PlayerTelemetry take_telemetry() noexcept;
    /// Adds the peaks since the last call. One thread at a time.
    void take_peaks(PlayerTelemetry& telemetry) noexcept;

  private:
    std::span<const float> rendered_channel(std::size_t channel) const noexcept;
    /// The slot to fill; null without a consumer or without a free slot.
    CaptureSlot* begin_capture() noexcept;
    void capture_from(AudioDevice& device, std::int32_t buffer_index) noexcept;
    void write_outputs(AudioDevice& device, std::int32_t buffer_index) noexcept;

    double sample_rate_ = 0.0;  ///< Hz, actual rate of the device
    std::size_t block_frames_ = 0;
    std::size_t output_channels_ = 0;
    std::size_t input_channels_ = 0;
    bool capture_ = false;
    std::int64_t frequency_ = 0;  ///< performance counter ticks per second
    PlaybackBuffer playback_;
    PlaybackBlock block_;  ///< the period's output
    CaptureSlots capture_ring_;
    PeakMeters input_meters_;
    PeakMeters output_meters_;
    MeterSchedule meter_schedule_;

    // Used only by the device thread.
    bool meters_due_ = false;
    bool rendered_ = false;  ///< block_ holds this period's output

    // Relaxed: numbers for display, each by itself; the device thread writes them.
    std::atomic<std::uint64_t> callbacks_total_{0};
    std::atomic<std::uint64_t> output_ready_failures_{0};
    std::atomic<std::uint64_t> callback_duration_last_us_{0};
    std::atomic<std::uint64_t> callback_duration_max_us_{0};
};

}  // namespace tavistro
