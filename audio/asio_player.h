// The audio side of the engine: playback buffer, capture, meters and the device that drives them.
//
//     AsioPlayer player(make_device);
//     player.start(settings, log, captured_input, telemetry);   // or start_loopback
//     player.push_block(...); player.on_sync(...);  // from the network's receive thread
//     player.stop();
//
// Threads: start, start_loopback, stop, construction and destruction belong to one controlling
// thread. push_block, on_sync and capture_ratio may be called from any thread at any time, also
// while the controlling thread starts or stops: such a late block is rejected. The device calls
// back on a thread of its own, which takes no lock and calls no callback; captured periods wait for
// the next push_block or on_sync (on the virtual device: for the end of the period).
//
// Locks: the queue mutex orders producers, the telemetry mutex the telemetry steps; whatever a
// start or stop rebuilds is rebuilt under both.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "asio/audio_device.h"
#include "audio/capture_slots.h"
#include "audio/loopback_device.h"
#include "audio/period_path.h"
#include "audio/player_report.h"
#include "audio/player_telemetry.h"
#include "config/settings.h"
#include "net/protocol_records.h"
#include "platform/realtime.h"

namespace tavistro {

/// Makes the device that AsioPlayer::start opens; null when there is none to be had.
using DeviceFactory = std::function<std::unique_ptr<AudioDevice>()>;

class AsioPlayer {
  public:
    using Telemetry = PlayerTelemetry;
    /// Takes one captured period; `samples` are planar, channel c at c * frames.
    using CapturedInputCallback =
        std::function<void(std::uint32_t sample_rate, std::uint16_t frames, std::uint16_t channels,
                           const std::vector<float>& samples)>;
    using TelemetryCallback = std::function<void(const Telemetry&)>;

    explicit AsioPlayer(DeviceFactory create_device);
    AsioPlayer(const AsioPlayer&) = delete;
    AsioPlayer& operator=(const AsioPlayer&) = delete;
    ~AsioPlayer();

    /// Stops what runs, then opens and starts a device of the factory. Any callback may be empty.
    /// The captured-input and telemetry callbacks run inside push_block and on_sync, one at a time,
    /// and must not start or stop the player; the log callback runs there too, and inside the
    /// start. None is called any more once stop() has returned. False, with one log line and the
    /// player stopped, when the channel maps are not usable, the device cannot be had, opened or
    /// started, or memory does not suffice.
    bool start(const AudioDeviceSettings& settings, LogCallback log,
               CapturedInputCallback captured_input, TelemetryCallback telemetry);
    /// The same on the virtual loopback device. The callbacks also run on its thread, once per
    /// period. Only the sizes of the channel maps matter. A thread that cannot be created is a
    /// failed start as well.
    bool start_loopback(const AudioDeviceSettings& settings, LogCallback log,
                        CapturedInputCallback captured_input, TelemetryCallback telemetry);
    /// Ends the periods, closes the device and drops the callbacks and every buffer. Idempotent;
    /// waits for the device, and for callers that are inside push_block or on_sync. Raises
    /// std::system_error (resource_deadlock_would_occur) on the loopback thread.
    void stop();

    /// Queues one block for playing, then hands out captured input and, once a second, a report.
    /// `samples` are planar. An empty block is ignored; one that does not fit is counted and
    /// dropped. Locks, and may call the callbacks.
    void push_block(std::uint32_t sequence, std::uint32_t sample_rate, std::uint16_t frames,
                    std::uint16_t channels, const std::vector<float>& samples,
                    std::uint64_t server_time_local_ns, std::uint64_t arrival_time_ns,
                    std::uint64_t delivery_time_ns);
    /// Takes the server's running frame position (at the stream's sample rate) for the drift
    /// estimate, then does as push_block does after queueing.
    void on_sync(const TavistroProtocol::SyncInfo& info);
    /// Device frames per server frame as estimated, 1.0 when nothing is known. Lock-free, also from
    /// inside a callback.
    double capture_ratio() const noexcept { return periods_.playback().drift().capture_ratio(); }

  private:
    struct Callbacks {
        LogCallback log;
        CapturedInputCallback captured_input;
        TelemetryCallback telemetry;
    };

    // The steps of a start, in order.
    template <typename OpenAndStart>
    bool begin_run(const AudioDeviceSettings& settings, Callbacks callbacks,
                   OpenAndStart open_and_start);
    bool open_and_start_device();
    bool open_and_start_loopback();
    void prepare_periods(double sample_rate, std::uint32_t block_frames);
    bool fail(const char* line) noexcept;
    void log(const char* line) const noexcept;

    static void buffer_switch(void* context, std::int32_t buffer_index);
    TAVISTRO_REALTIME void on_period(std::int32_t buffer_index) noexcept;

    void telemetry_step();
    void hand_out_captured_input();
    void report(std::uint64_t now_ms);
    bool device_fault() const;

    DeviceFactory create_device_;

    std::mutex queue_mutex_;
    std::mutex telemetry_mutex_;
    // Written under both mutexes by the controlling thread, which reads them without.
    AudioDeviceSettings settings_;
    Callbacks callbacks_;
    std::unique_ptr<AudioDevice> device_;  ///< absent when stopped and on the virtual device
    PeriodPath periods_;
    // Under the telemetry mutex.
    PlayerReporter reporter_;
    CaptureSlot captured_;  ///< keeps its memory from step to step

    /// A device may call back while it is being opened: nothing is prepared for a period then.
    std::atomic<bool> periods_ready_{false};
    LoopbackDevice loopback_;
};

}  // namespace tavistro
