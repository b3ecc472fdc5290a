// What the host sees: the live state record and every operation that changes it.
//
// The record carries numbers only, with the codes of tavistro/engine.h. Every operation may be
// called from any thread and holds the record's mutex for its own few writes, calling nothing
// meanwhile, so snapshot() never waits for more than that. Nothing here allocates or throws.
#pragma once

#include <cstdint>
#include <mutex>
#include <span>

#include "audio/player_telemetry.h"
#include "tavistro/engine.h"

namespace tavistro {

/// What the engine is doing or suffering from, in the host's three numbers.
struct Status {
    tavistro_status_level level = TAVISTRO_LEVEL_NONE;
    tavistro_status_category category = TAVISTRO_CATEGORY_ENGINE;
    tavistro_message_id message = TAVISTRO_MESSAGE_NONE;
    friend bool operator==(const Status&, const Status&) = default;
};

/// Statuses that more than one place sets.
inline constexpr Status status_running{TAVISTRO_LEVEL_HEALTHY, TAVISTRO_CATEGORY_ENGINE,
                                       TAVISTRO_MESSAGE_RUNNING};
inline constexpr Status status_stopped{TAVISTRO_LEVEL_NONE, TAVISTRO_CATEGORY_ENGINE,
                                       TAVISTRO_MESSAGE_STOPPED};
inline constexpr Status status_sync_lost{TAVISTRO_LEVEL_PENDING, TAVISTRO_CATEGORY_NETWORK,
                                         TAVISTRO_MESSAGE_SYNC_LOST};

/// One entry of the event history before it gets its sequence and time.
struct Event {
    tavistro_event_kind kind;
    tavistro_status_category subject;
    std::uint32_t attempt;
    std::uint32_t max_attempts;
    tavistro_error_code error_code;
    tavistro_message_id message;
};

class StateRecord {
  public:
    /// A record of an engine that was never started.
    StateRecord() noexcept;

    /// Empties everything of the run before and shows state "starting". The meter lists stay until
    /// the new run's settings replace them.
    void reset_for_start() noexcept;

    void set_state(tavistro_state_code state) noexcept;
    /// Both at once: no snapshot shows the one without the other.
    void set_state(tavistro_state_code state, const Status& status) noexcept;
    tavistro_state_code state() const noexcept;
    void set_status(const Status& status) noexcept;
    /// Sets the status unless the state is other than "running": a report that is still on its way
    /// when the worker has moved on does not overwrite what the worker says.
    void set_status_while_running(const Status& status) noexcept;
    /// An error other than none is also the status; none leaves the status as it is.
    void set_error(tavistro_error_code code, tavistro_message_id detail) noexcept;

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
    tavistro_engine_state snapshot() const noexcept;

  private:
    void write_error(tavistro_error_code code, tavistro_message_id detail) noexcept;
    void write_status(const Status& status) noexcept;
    void empty_events() noexcept;

    mutable std::mutex mutex_;
    tavistro_engine_state record_{};  ///< sequence s of the events lives in slot (s - 1) mod 8
};

}  // namespace tavistro
