#include "engine/state_record.h"

#include <algorithm>
#include <cstddef>

#include "platform/clock.h"

namespace tavistro {
namespace {

using Meters = std::span<tavistro_channel_meter, TAVISTRO_MAX_METERS>;

std::uint32_t assign_channels(Meters meters, std::span<const std::int32_t> channels) {
    const std::size_t count = std::min(channels.size(), meters.size());
    std::fill(meters.begin(), meters.end(), tavistro_channel_meter{});
    for (std::size_t i = 0; i < count; ++i) {
        meters[i].channel = static_cast<std::uint32_t>(channels[i]);
    }
    return static_cast<std::uint32_t>(count);
}

void assign_peaks(std::span<tavistro_channel_meter> meters,
                  const std::array<std::uint32_t, max_meters>& peaks, std::size_t peak_count) {
    const std::size_t reported = std::min(peak_count, peaks.size());
    for (std::size_t i = 0; i < meters.size(); ++i) {
        meters[i].peak_permille = i < reported ? peaks[i] : 0;
    }
}

}  // namespace

StateRecord::StateRecord() noexcept {
    record_.version = TAVISTRO_STATE_RECORD_VERSION;
    clear_events();
}

void StateRecord::reset_for_start() noexcept {
    const std::lock_guard lock(mutex_);
    clear_events();
    record_.client_id = 0;
    record_.stream_sample_rate = record_.stream_block_frames = 0;
    record_.device_sample_rate = record_.device_block_frames = 0;
    record_.state = code_of(EngineState::Starting);
    write_status({StatusLevel::Pending, StatusCategory::Engine, MessageId::Starting});
    write_error(ErrorCode::None, MessageId::None);
}

void StateRecord::set_state(EngineState state) noexcept {
    const std::lock_guard lock(mutex_);
    record_.state = code_of(state);
}

void StateRecord::set_state(EngineState state, const Status& status) noexcept {
    const std::lock_guard lock(mutex_);
    record_.state = code_of(state);
    write_status(status);
}

EngineState StateRecord::state() const noexcept {
    const std::lock_guard lock(mutex_);
    return static_cast<EngineState>(record_.state);
}

void StateRecord::set_status(const Status& status) noexcept {
    const std::lock_guard lock(mutex_);
    write_status(status);
}

void StateRecord::set_status_while_running(const Status& status) noexcept {
    const std::lock_guard lock(mutex_);
    if (record_.state == code_of(EngineState::Running)) write_status(status);
}

void StateRecord::set_error(ErrorCode code, MessageId detail) noexcept {
    const std::lock_guard lock(mutex_);
    write_error(code, detail);
}

void StateRecord::record_event(const Event& event) noexcept {
    const std::uint64_t now_ms = platform::millisecond_tick();
    const std::lock_guard lock(mutex_);
    const std::uint64_t sequence = record_.next_event_sequence++;
    record_.events[(sequence - 1) % TAVISTRO_MAX_EVENTS] = {
        .sequence = sequence,
        .time_ms = now_ms,
        .kind = code_of(event.kind),
        .subject = code_of(event.subject),
        .attempt = event.attempt,
        .max_attempts = event.max_attempts,
        .error_code = code_of(event.error_code),
        .message = code_of(event.message),
    };
    record_.event_count = std::min(record_.event_count + 1, TAVISTRO_MAX_EVENTS);
}

void StateRecord::set_client_id(std::uint32_t client_id) noexcept {
    const std::lock_guard lock(mutex_);
    record_.client_id = client_id;
}

void StateRecord::set_stream_format(std::uint32_t sample_rate,
                                    std::uint32_t block_frames) noexcept {
    const std::lock_guard lock(mutex_);
    record_.stream_sample_rate = sample_rate;
    record_.stream_block_frames = block_frames;
}

void StateRecord::set_device_format(std::uint32_t sample_rate,
                                    std::uint32_t block_frames) noexcept {
    const std::lock_guard lock(mutex_);
    record_.device_sample_rate = sample_rate;
    record_.device_block_frames = block_frames;
}

void StateRecord::set_meter_channels(std::span<const std::int32_t> inputs,
                                     std::span<const std::int32_t> outputs) noexcept {
    const std::lock_guard lock(mutex_);
    record_.input_meter_count = assign_channels(record_.input_meters, inputs);
    record_.output_meter_count = assign_channels(record_.output_meters, outputs);
}

void StateRecord::update_meters(const PlayerTelemetry& telemetry) noexcept {
    const std::lock_guard lock(mutex_);
    assign_peaks({record_.input_meters, record_.input_meter_count}, telemetry.input_peaks,
                 telemetry.input_peak_count);
    assign_peaks({record_.output_meters, record_.output_meter_count}, telemetry.output_peaks,
                 telemetry.output_peak_count);
}

tavistro_engine_state StateRecord::snapshot_state() const noexcept {
    tavistro_engine_state copy;
    std::span events = copy.events;
    {
        const std::lock_guard lock(mutex_);
        copy = record_;
    }
    // Until the ring is full, the oldest event is in slot 0.
    if (copy.event_count == TAVISTRO_MAX_EVENTS) {
        const auto oldest = (copy.next_event_sequence - 1) % TAVISTRO_MAX_EVENTS;
        std::rotate(events.begin(), events.begin() + static_cast<std::ptrdiff_t>(oldest),
                    events.end());
    }
    return copy;
}

void StateRecord::write_error(ErrorCode code, MessageId detail) noexcept {
    record_.error_code = code_of(code);
    record_.error_detail = code_of(detail);
    if (code == ErrorCode::None) return;
    write_status({StatusLevel::Error, StatusCategory::Engine, detail});
}

void StateRecord::write_status(const Status& status) noexcept {
    record_.status_level = code_of(status.level);
    record_.status_category = code_of(status.category);
    record_.status_message = code_of(status.message);
}

void StateRecord::clear_events() noexcept {
    std::fill(std::begin(record_.events), std::end(record_.events), tavistro_engine_event{});
    record_.event_count = 0;
    record_.event_capacity = TAVISTRO_MAX_EVENTS;
    record_.next_event_sequence = 1;
}

}  // namespace tavistro
