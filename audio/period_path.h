// What the player does once per device period: follow the drift, capture, render, write, measure.
// run_device_period() is the whole of it on a device; on the virtual one, loopback_device.h puts
// the steps together.
//
// The device thread (a driver's, or the loopback thread) runs the periods without a lock; other
// threads feed the playback buffer, take captured periods and read the counters. Everything a
// period needs is allocated by prepare().
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
    // Neither the device thread nor any other may be inside these two.

    /// Allocates for a device that runs at `sample_rate` Hz with periods of `block_frames`, and
    /// starts every counter from 0. Of the settings, the sizes of the channel maps and of the
    /// playback buffer matter. `capture`: somebody takes the captured input. Throws std::bad_alloc
    /// or std::length_error when memory does not suffice.
    void prepare(const AudioDeviceSettings& settings, double sample_rate, std::int32_t block_frames,
                 bool capture);
    /// Frees what prepare() allocated: blocks are rejected, nothing is captured.
    void release() noexcept;

    /// One whole period of a real device, called with the free half of its buffers. Device thread.
    TAVISTRO_REALTIME void run_device_period(AudioDevice& device,
                                             std::int32_t buffer_index) noexcept;

    // The steps of a period in their order. Device thread.

    /// Counts a period and decides whether its meters are due.
    TAVISTRO_REALTIME void count_period() noexcept;
    /// Takes the notices of the server into the drift estimate.
    TAVISTRO_REALTIME void follow_drift() noexcept;
    /// Renders the period's block. `start` is the performance counter at the period's start.
    TAVISTRO_REALTIME void render(std::int64_t start) noexcept;
    /// Shows what was rendered, if anything, on the output meters when they are due.
    TAVISTRO_REALTIME void meter_outputs() noexcept;
    /// Captures what was rendered, output channel i as input channel i: zeros where there is no
    /// such output, nothing was rendered or the input is silent.
    TAVISTRO_REALTIME void loop_back(bool input_silent) noexcept;
    /// Counts the period's frames as consumed, for the drift estimate.
    TAVISTRO_REALTIME void count_frames() noexcept;
    /// Both are performance counter values; ignored when the end lies before the start.
    TAVISTRO_REALTIME void record_duration(std::int64_t start, std::int64_t end) noexcept;

    PlaybackBuffer& playback() noexcept { return playback_; }
    const PlaybackBuffer& playback() const noexcept { return playback_; }
    /// Removes the oldest captured period. One thread at a time.
    bool take_captured(CaptureSlot& slot) { return capture_ring_.take(slot); }

    /// Snapshot of everything measured here, without per-second values and peaks. Starts a new
    /// interval of the fill statistics. One thread at a time.
    PlayerTelemetry take_telemetry() noexcept;
    /// Adds the peaks since the last call. One thread at a time.
    void take_peaks(PlayerTelemetry& telemetry) noexcept;

  private:
    std::span<const float> rendered_channel(std::size_t channel) const noexcept;
    /// The slot to fill, null when nobody wants it or no slot is free.
    CaptureSlot* begin_capture() noexcept;
    void capture_from(AudioDevice& device, std::int32_t buffer_index) noexcept;
    void write_outputs(AudioDevice& device, std::int32_t buffer_index) noexcept;

    double sample_rate_ = 0.0;  ///< Hz, as the device runs
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

    // The device thread's own.
    bool meters_due_ = false;
    bool rendered_ = false;  ///< block_ holds this period's output

    std::atomic<std::uint64_t> callbacks_total_{0};
    std::atomic<std::uint64_t> output_ready_failures_{0};
    std::atomic<std::uint64_t> callback_duration_last_us_{0};
    std::atomic<std::uint64_t> callback_duration_max_us_{0};
};

}  // namespace tavistro
