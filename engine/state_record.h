// The live state record of the host interface and all operations on it.
//
// The record contains only numbers, with the codes of engine/codes.h. Any thread may call any
// operation. An operation locks the mutex only for its few writes and calls nothing meanwhile, so
// snapshot_state() waits no longer than that. Nothing here allocates or throws.
#pragma once

#include <cstdint>
#include <mutex>
#include <span>

#include "audio/player_telemetry.h"
#include "engine/codes.h"
#include "tavistro/engine.h"

namespace tavistro {

/// The three status codes that the host reads.
struct Status {
    StatusLevel level = StatusLevel::None;
    StatusCategory category = StatusCategory::Engine;
    MessageId message = MessageId::None;
    friend bool operator==(const Status&, const Status&) = default;
};

/// Statuses that are set in more than one place.
inline constexpr Status status_running{StatusLevel::Healthy, StatusCategory::Engine,
                                       MessageId::Running};
inline constexpr Status status_stopped{StatusLevel::None, StatusCategory::Engine,
                                       MessageId::Stopped};
inline constexpr Status status_sync_lost{StatusLevel::Pending, StatusCategory::Network,
                                         MessageId::SyncLost};

/// An entry of the event history, without its sequence and time.
struct Event {
    EventKind kind;
    StatusCategory subject;
    std::uint32_t attempt;
    std::uint32_t max_attempts;
    ErrorCode error_code;
    MessageId message;
};

class StateRecord {
  public:
    /// The record of an engine that was never started.
    StateRecord() noexcept;

    /// Clears the previous run's values and sets the state to "starting". The meter lists stay
    /// until the new run's configuration replaces them.
    void reset_for_start() noexcept;

    void set_state(EngineState state) noexcept;
    /// Sets both atomically: no snapshot shows only one of them.
    void set_state(EngineState state, const Status& status) noexcept;
    EngineState state() const noexcept;
    void set_status(const Status& status) noexcept;
    /// Sets the status only in state "running": a late report must not overwrite the status that
    /// the worker has set in a later state.
    void set_status_while_running(const Status& status) noexcept;
    /// An error also sets the status; ErrorCode::None leaves the status unchanged.
    void set_error(ErrorCode code, MessageId detail) noexcept;

    /// Appends to the event history; overwrites the oldest entry when it is full.
    void record_event(const Event& event) noexcept;

    void set_client_id(std::uint32_t client_id) noexcept;
    void set_stream_format(std::uint32_t sample_rate, std::uint32_t block_frames) noexcept;
    void set_device_format(std::uint32_t sample_rate, std::uint32_t block_frames) noexcept;
    /// Sets one meter per channel, in the order of the lists, at most 32 each; peaks start at 0.
    void set_meter_channels(std::span<const std::int32_t> inputs,
                            std::span<const std::int32_t> outputs) noexcept;
    /// Copies the peaks; meters without a reported peak are set to 0.
    void update_meters(const PlayerTelemetry& telemetry) noexcept;

    /// Returns a consistent copy with the events oldest first.
    tavistro_engine_state snapshot_state() const noexcept;

  private:
    void write_error(ErrorCode code, MessageId detail) noexcept;
    void write_status(const Status& status) noexcept;
    void clear_events() noexcept;

    mutable std::mutex mutex_;
    tavistro_engine_state record_{};  ///< the event with sequence s is in slot (s - 1) mod 8
};

}  // namespace tavistro
