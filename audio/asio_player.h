// The audio side of the engine: playback buffer, capture, meters and the audio device.
//
//     AsioPlayer player(make_device);
//     player.start(settings, log, captured_input, telemetry);   // or start_loopback
//     player.push_block(...); player.on_sync(...);  // from the network's receive thread
//     player.stop();
//
// Threads: one controlling thread calls start, start_loopback, stop, constructor and destructor.
// Any thread may call push_block, on_sync and capture_ratio at any time; blocks that arrive during
// a start or stop are rejected. The device calls back on its own thread, which locks no mutex and
// calls no user callback: captured periods wait for the next push_block or on_sync, or for the end
// of the period on the virtual device.
//
// Locks: the queue mutex serialises producers, the telemetry mutex serialises telemetry steps.
// Start and stop change shared state with both locked.
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

/// Creates the device that AsioPlayer::start opens; returns null if none is available.
using DeviceFactory = std::function<std::unique_ptr<AudioDevice>()>;

class AsioPlayer {
  public:
    using Telemetry = PlayerTelemetry;
    /// Receives one captured period; `samples` are planar, channel c starts at c * frames.
    using CapturedInputCallback =
        std::function<void(std::uint32_t sample_rate, std::uint16_t frames, std::uint16_t channels,
                           const std::vector<float>& samples)>;
    using TelemetryCallback = std::function<void(const Telemetry&)>;

    explicit AsioPlayer(DeviceFactory create_device);
    AsioPlayer(const AsioPlayer&) = delete;
    AsioPlayer& operator=(const AsioPlayer&) = delete;
    ~AsioPlayer();

    /// Stops the player, then creates, opens and starts a device. Any callback may be empty.
    /// The captured-input and telemetry callbacks run inside push_block and on_sync, one at a time,
    /// and must not start or stop the player; the log callback also runs inside the start. No
    /// callback is called after stop() has returned. Returns false, with one log line and the
    /// player stopped, if the channel maps are invalid, the device cannot be created, opened or
    /// started, or memory runs out.
    bool start(const AudioDeviceSettings& settings, LogCallback log,
               CapturedInputCallback captured_input, TelemetryCallback telemetry);
    /// Like start(), with the virtual loopback device. The callbacks also run on its thread, once
    /// per period. Only the sizes of the channel maps are used. Also returns false if the thread
    /// cannot be created.
    bool start_loopback(const AudioDeviceSettings& settings, LogCallback log,
                        CapturedInputCallback captured_input, TelemetryCallback telemetry);
    /// Stops the periods, closes the device and frees callbacks and buffers. Idempotent. Waits for
    /// the device and for callers inside push_block or on_sync. Throws std::system_error
    /// (resource_deadlock_would_occur) on the loopback thread.
    void stop();

    /// Queues one block for playback, then delivers captured input and, once per second, a report.
    /// `samples` are planar. Ignores an empty block; counts and drops one that does not match.
    /// Locks mutexes and may call the callbacks.
    void push_block(std::uint32_t sequence, std::uint32_t sample_rate, std::uint16_t frames,
                    std::uint16_t channels, const std::vector<float>& samples,
                    std::uint64_t server_time_local_ns, std::uint64_t arrival_time_ns,
                    std::uint64_t delivery_time_ns);
    /// Updates the drift estimate with the server's frame position (at the stream's sample rate),
    /// then delivers captured input and reports like push_block.
    void on_sync(const TavistroProtocol::SyncInfo& info);
    /// Estimated device frames per server frame, 1.0 without an estimate. Lock-free; may be called
    /// from a callback.
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
    // Written by the controlling thread with both mutexes locked; it reads them without a lock.
    AudioDeviceSettings settings_;
    Callbacks callbacks_;
    std::unique_ptr<AudioDevice> device_;  ///< null if stopped and on the virtual device
    PeriodPath periods_;
    // Guarded by the telemetry mutex.
    PlayerReporter reporter_;
    CaptureSlot captured_;  ///< reused, so that its memory is allocated once

    /// False while the device is being opened: it may call back before a period is prepared. Set
    /// with release after that, loaded with acquire. Cleared relaxed: no callback is inside then,
    /// and the next device's come after current_device has been set.
    std::atomic<bool> periods_ready_{false};
    LoopbackDevice loopback_;
};

}  // namespace tavistro
