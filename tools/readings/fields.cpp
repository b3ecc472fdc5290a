#include "tools/readings/fields.h"

#include <cstring>

#include "tavistro/engine.h"
#include "tools/readings/texts.h"

namespace tavistro::readings {

namespace {

#define FIELD(record, name, type) \
    { #name, offsetof(record, name), FieldType::type }
#define CODE(record, name, text) \
    { #name, offsetof(record, name), FieldType::u32, FieldKind::gauge, text }
#define STATS(name, type) FIELD(tavistro_stats_block, name, type)

constexpr Field stats_table[] = {
    CODE(tavistro_stats_block, state, state_text),
    CODE(tavistro_stats_block, error_code, error_text),
    STATS(client_id, u32),
    STATS(stream_sample_rate, u32),
    STATS(stream_block_frames, u32),
    STATS(client_recv_blocks_per_sec, u32),
    STATS(client_duplicate_blocks_per_sec, u32),
    STATS(rtt_samples, u32),
    STATS(ping_timeouts, u32),
    STATS(rtt_last_us, u32),
    STATS(rtt_min_us, u32),
    STATS(rtt_max_us, u32),
    STATS(rtt_p50_us, u32),
    STATS(rtt_p95_us, u32),
    STATS(rtt_p99_us, u32),
    STATS(clock_synced, u32),
    STATS(sync_rtt_us, u32),
    STATS(rtt_histogram, histogram),
    STATS(sync_delay_samples, u32),
    STATS(sync_delay_last_us, u32),
    STATS(sync_delay_min_us, u32),
    STATS(sync_delay_max_us, u32),
    STATS(sync_delay_p50_us, u32),
    STATS(sync_delay_p95_us, u32),
    STATS(sync_delay_p99_us, u32),
    STATS(sync_delay_histogram, histogram),
    STATS(player_recv_blocks_per_sec, u32),
    STATS(callbacks_per_sec, u32),
    STATS(dequeued_per_sec, u32),
    STATS(playback_buffer_frames, u32),
    STATS(min_frames, u32),
    STATS(max_frames, u32),
    STATS(target_frames, u32),
    STATS(error_frames, i32),
    STATS(buffer_us, i32),
    STATS(buffer_centiblocks, i32),
    STATS(ratio_ppm, i32),
    STATS(callback_duration_last_us, u32),
    STATS(callback_duration_max_us, u32),
    STATS(underruns, u32),
    STATS(overruns, u32),
    STATS(playback_dropped, u32),
    STATS(capture_dropped, u32),
    STATS(block_callback_last_us, u32),
    STATS(block_callback_max_us, u32),
    STATS(queue_latency_last_us, u32),
    STATS(queue_latency_max_us, u32),
    STATS(server_to_output_last_us, u32),
    STATS(server_to_output_max_us, u32),
    STATS(rendered_frames, u64),
};

constexpr Field state_table[] = {
    CODE(tavistro_engine_state, state, state_text),
    CODE(tavistro_engine_state, status_level, level_text),
    CODE(tavistro_engine_state, status_category, category_text),
    CODE(tavistro_engine_state, error_code, error_text),
    CODE(tavistro_engine_state, error_detail, message_text),
    CODE(tavistro_engine_state, status_message, message_text),
    FIELD(tavistro_engine_state, client_id, u32),
    FIELD(tavistro_engine_state, stream_sample_rate, u32),
    FIELD(tavistro_engine_state, stream_block_frames, u32),
    FIELD(tavistro_engine_state, device_sample_rate, u32),
    FIELD(tavistro_engine_state, device_block_frames, u32),
};

constexpr Field event_table[] = {
    FIELD(tavistro_engine_event, sequence, u64),
    // The system's millisecond tick. In the tools' output, time_ms is the time of day.
    {"system_time_ms", offsetof(tavistro_engine_event, time_ms), FieldType::u64},
    CODE(tavistro_engine_event, kind, event_kind_text),
    CODE(tavistro_engine_event, subject, category_text),
    FIELD(tavistro_engine_event, attempt, u32),
    FIELD(tavistro_engine_event, max_attempts, u32),
    CODE(tavistro_engine_event, error_code, error_text),
    CODE(tavistro_engine_event, message, message_text),
};

constexpr Field meter_table[] = {
    FIELD(tavistro_channel_meter, channel, u32),
    FIELD(tavistro_channel_meter, peak_permille, u32),
};

#undef CODE
#undef STATS
#undef FIELD

template <typename Value>
Value get(const void* record, const Field& field) {
    Value value;
    std::memcpy(&value, static_cast<const std::byte*>(record) + field.offset, sizeof value);
    return value;
}

template <typename Value>
void put(void* record, const Field& field, const Value& value) {
    std::memcpy(static_cast<std::byte*>(record) + field.offset, &value, sizeof value);
}

}  // namespace

std::span<const Field> stats_fields() {
    return stats_table;
}
std::span<const Field> state_fields() {
    return state_table;
}
std::span<const Field> event_fields() {
    return event_table;
}
std::span<const Field> meter_fields() {
    return meter_table;
}

Number number(const void* record, const Field& field) {
    switch (field.type) {
        case FieldType::real:
            return get<double>(record, field);
        case FieldType::u64:
        case FieldType::i64:
            return get<std::int64_t>(record, field);
        case FieldType::i32:
            return std::int64_t{get<std::int32_t>(record, field)};
        default:
            return std::int64_t{get<std::uint32_t>(record, field)};
    }
}

void set_number(void* record, const Field& field, Number value) {
    if (field.type == FieldType::u32 || field.type == FieldType::i32) {
        put(record, field, static_cast<std::uint32_t>(std::get<std::int64_t>(value)));
    } else {
        std::visit([&](auto plain) { put(record, field, plain); }, value);
    }
}

Histogram histogram(const void* record, const Field& field) {
    return get<Histogram>(record, field);
}

void set_histogram(void* record, const Field& field, const Histogram& counts) {
    put(record, field, counts);
}

}  // namespace tavistro::readings
