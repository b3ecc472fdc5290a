// What the host sees: the live state record and every operation that changes it.
//
// The record carries numbers only, with the codes of engine/codes.h. Every operation may be
// called from any thread and holds the record's mutex for its own few writes, calling nothing
// meanwhile, so snapshot_state() never waits for more than that. Nothing here allocates or throws.
#pragma once

#include <cstdint>
#include <mutex>
#include <span>

#include "audio/player_telemetry.h"
#include "engine/codes.h"
#include "tavistro/engine.h"

namespace tavistro {

/// What the engine is doing or suffering from, in the host's three numbers.
struct Status {
    StatusLevel level = StatusLevel::None;
    StatusCategory category = StatusCategory::Engine;
    MessageId message = MessageId::None;
    friend bool operator==(const Status&, const Status&) = default;
};

/// Statuses that more than one place sets.
inline constexpr Status status_running{StatusLevel::Healthy, StatusCategory::Engine,
                                       MessageId::Running};
inline constexpr Status status_stopped{StatusLevel::None, StatusCategory::Engine,
                                       MessageId::Stopped};
inline constexpr Status status_sync_lost{StatusLevel::Pending, StatusCategory::Network,
                                         MessageId::SyncLost};

/// One entry of the event history before it gets its sequence and time.
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
    /// A record of an engine that was never started.
    StateRecord() noexcept;

    /// Empties everything of the run before and shows state "starting". The meter lists stay until
    /// the new run's settings replace them.
    void reset_for_start() noexcept;

    void set_state(EngineState state) noexcept;
    /// Both at once: no snapshot shows the one without the other.
    void set_state(EngineState state, const Status& status) noexcept;
    EngineState state() const noexcept;
    void set_status(const Status& status) noexcept;
    /// Sets the status unless the state is other than "running": a report that is still on its way
    /// when the worker has moved on does not overwrite what the worker says.
    void set_status_while_running(const Status& status) noexcept;
    /// An error other than none is also the status; none leaves the status as it is.
    void set_error(ErrorCode code, MessageId detail) noexcept;

    /// Appends to the history, over the oldest entry when it is full.
    void record_event(const Event& event) noexcept;

    void set_client_id(std::uint32_t client_id) noexcept;
    void set_stream_format(std::uint32_t sample_rate, std::uint32_t block_frames) noexcept;
    void set_device_format(std::uint32_t sample_rate, std::uint32_t block_frames) noexcept;
    /// One meter per channel, in the lists' order, at most 32 each; peaks start at 0.
    void set_meter_channels(std::span<const std::int32_t> inputs,
                            std::span<const std::int32_t> outputs) noexcept;
    /// Takes over the peaks; meters that the player reports no peak for show 0.
    void update_meters(const PlayerTelemetry& telemetry) noexcept;

    /// A consistent copy, its events oldest first.
    tavistro_engine_state snapshot_state() const noexcept;

  private:
    void write_error(ErrorCode code, MessageId detail) noexcept;
    void write_status(const Status& status) noexcept;
    void clear_events() noexcept;

    mutable std::mutex mutex_;
    tavistro_engine_state record_{};  ///< sequence s of the events lives in slot (s - 1) mod 8
};

}  // namespace tavistro
