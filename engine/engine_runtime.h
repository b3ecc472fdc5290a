// The engine behind the exported handle: one run at a time, from configuration to teardown.
//
// start() launches a worker thread. The worker loads the configuration, opens the statistics block,
// starts the network client, waits for the server to set the stream format, starts the audio path
// and then supervises both until a stop or a fatal error. The host polls snapshot_state().
//
// Client and player never call each other: all exchange between them goes through the callbacks in
// bridges.cpp, which run on the client's and the player's threads. Callbacks never start or stop
// anything; they leave requests to the worker in a Handoff.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "audio/asio_player.h"
#include "config/settings.h"
#include "engine/device_factory.h"
#include "engine/handoff.h"
#include "engine/player_supervision.h"
#include "engine/state_record.h"
#include "engine/stats_block.h"
#include "net/protocol_records.h"
#include "net/tavistro_client.h"
#include "platform/threads.h"

namespace tavistro {

/// Format of the server's blocks; zeros until the audio path has started. Aligned so that it is
/// loaded and stored as one word.
struct alignas(std::uint64_t) StreamFormat {
    std::uint32_t sample_rate = 0;   ///< Hz
    std::uint32_t block_frames = 0;  ///< frames per block
    friend bool operator==(const StreamFormat&, const StreamFormat&) = default;
};

class EngineRuntime {
  public:
    /// Creates an idle engine. Each start of the audio path calls `create_device`, unless the
    /// configuration selects the virtual loopback device.
    explicit EngineRuntime(DeviceFactory create_device = create_default_device);
    EngineRuntime(const EngineRuntime&) = delete;
    EngineRuntime& operator=(const EngineRuntime&) = delete;
    ~EngineRuntime() { stop(); }

    /// Launches a run with the configuration file `path`, which is copied. Returns false when
    /// refused, with the reason in the record: no path, a previous run that was not stopped, or a
    /// failure to create the thread. Host thread; does not wait.
    bool start(const char* path) noexcept;

    /// Stops the run and returns when its worker has ended: within about 100 ms, or that long after
    /// the end of a start attempt in progress. Host thread, not concurrently with start().
    void stop() noexcept;

    /// Any thread, at any time.
    tavistro_engine_state snapshot_state() const noexcept { return record_.snapshot_state(); }

  private:
    // Stages of a run, on the worker (engine_runtime.cpp).
    void run(const std::string& path) noexcept;
    bool prepare(const EngineConfig& config);
    void run_stages(EngineConfig& config);
    /// Waits without a timeout. Returns false when stopped, otherwise sets the format in `audio`.
    bool wait_for_first_sync(AudioDeviceSettings& audio);
    void supervise_until_stopped(EngineConfig& config);
    void end_after_retries() noexcept;
    void end_after_exception() noexcept;

    // Starts with retries, on the worker (start_retries.cpp).
    enum class Attempt { started, failed, hopeless };
    struct RetryPlan;
    template <typename TryOnce, typename BeginPause>
    bool start_with_retries(const RetryPlan& plan, TryOnce try_once, BeginPause begin_pause);
    bool start_client_with_retries(const TavistroProtocol::ClientSettings& settings);
    bool start_asio_with_retries(const AudioDeviceSettings& audio);
    /// Returns false when stopped before `ms` have passed.
    bool wait_or_stop(std::uint32_t ms);

    // Single start attempts, on the worker (engine_start.cpp).
    Attempt start_client(const TavistroProtocol::ClientSettings& settings);
    /// Sets the error when it returns false.
    bool start_asio(const AudioDeviceSettings& audio);
    bool start_loopback_asio(const AudioDeviceSettings& audio);
    /// Starts the device that the configuration selects.
    bool start_audio(const EngineConfig& config);
    using StartPlayer = decltype(&AsioPlayer::start);
    /// `device` is the device's format; zeros if unknown.
    bool start_player(StartPlayer start_once, const AudioDeviceSettings& audio, StreamFormat device,
                      MessageId failure);
    void stop_audio() noexcept;
    bool set_capture_format(const AudioDeviceSettings& audio);

    // Checks during a run, on the worker; false ends the run (supervision.cpp).
    bool apply_pending_format_change(EngineConfig& config);
    /// A successful recovery also clears requests that were made while it ran.
    bool run_device_recovery(const EngineConfig& config);
    void check_sync_loss();
    void reset_supervision() noexcept;
    bool give_up() noexcept;
    bool sync_is_stale() const noexcept;

    // Supervision by the player's reports, on the thread of the reports (supervision.cpp).
    void supervise_player_telemetry(const AsioPlayer::Telemetry& telemetry);
    void request_recovery(StatusCategory reason);
    void record_recovery_event(EventKind kind, StatusCategory reason, std::uint32_t attempt,
                               ErrorCode error_code, MessageId message) noexcept;

    // Callbacks of client and player (bridges.cpp).
    void on_output_block(const TavistroProtocol::CompletedOutputBlock& block);
    void on_sync_info(const TavistroProtocol::SyncInfo& info);
    void on_client_telemetry(const TavistroClient::Telemetry& telemetry);
    void on_captured_input(std::uint32_t sample_rate, std::uint16_t frames, std::uint16_t channels,
                           const std::vector<float>& samples);
    void on_player_telemetry(const AsioPlayer::Telemetry& telemetry);

    // Updates of both the state record and the statistics block.
    void set_state(EngineState state) noexcept;
    void set_state(EngineState state, const Status& status) noexcept;
    void set_error(ErrorCode code, MessageId detail) noexcept;
    void clear_error() noexcept { set_error(ErrorCode::None, MessageId::None); }
    void set_failed(ErrorCode code, MessageId detail) noexcept;
    void set_stream_format(const AudioDeviceSettings& audio) noexcept;

    StateRecord record_;
    PlayerSupervision supervision_;
    TavistroClient client_;
    AsioPlayer player_;
    StatsBlock stats_;

    platform::Thread worker_;
    platform::WorkerEvent worker_event_;  ///< signalled by stop() and by the first SyncInfo
    std::atomic<bool> stop_requested_{false};

    /// The player receives blocks and SyncInfo only while this is true.
    std::atomic<bool> audio_accepting_{false};
    std::atomic<StreamFormat> active_format_{};   ///< of the latest start of the audio path
    std::atomic<std::uint64_t> last_sync_ms_{0};  ///< millisecond tick; 0: none in this run

    Handoff<TavistroProtocol::SyncInfo> first_sync_;  ///< kept until the next run
    Handoff<TavistroProtocol::SyncInfo> format_change_;
    Handoff<StatusCategory> recovery_request_;

    bool recovery_enabled_ = false;                    ///< written before the client starts
    std::atomic<std::uint32_t> recovery_attempts_{0};  ///< since the last successful recovery
    std::uint64_t next_recovery_ms_ = 0;               ///< worker only; millisecond tick
};

}  // namespace tavistro
