#include "tools/readings/fields.h"

#include <cstring>

#include "tavistro/engine.h"
#include "tools/readings/texts.h"

namespace tavistro::readings {

namespace {

#define FIELD(record, name, type, ...) \
    { #name, offsetof(record, name), FieldType::type, __VA_ARGS__ }
#define STATS(name, type, kind, ...) \
    FIELD(tavistro_stats_block, name, type, FieldKind::kind, __VA_ARGS__)
#define CODE(record, name, text) FIELD(record, name, u32, FieldKind::gauge, "", text)

constexpr Field stats_table[] = {
    STATS(state, u32, gauge, "State of the engine, tavistro_state_code", state_text),
    STATS(error_code, u32, gauge, "Error of the engine, tavistro_error_code", error_text),
    STATS(client_id, u32, gauge, "Client id"),
    STATS(stream_sample_rate, u32, gauge, "Sample rate of the stream in Hz"),
    STATS(stream_block_frames, u32, gauge, "Frames per block of the stream"),
    STATS(client_recv_blocks_per_sec, u32, gauge, "New blocks received in the last second"),
    STATS(client_duplicate_blocks_per_sec, u32, gauge,
          "Late or repeated blocks in the last second"),
    STATS(rtt_samples, u32, counter, "Round-trip times measured"),
    STATS(ping_timeouts, u32, counter, "Pings without a reply"),
    STATS(rtt_last_us, u32, gauge, "Round-trip time, last"),
    STATS(rtt_min_us, u32, gauge, "Round-trip time, lowest"),
    STATS(rtt_max_us, u32, gauge, "Round-trip time, highest"),
    STATS(rtt_p50_us, u32, gauge, "Round-trip time, median"),
    STATS(rtt_p95_us, u32, gauge, "Round-trip time, 95th percentile"),
    STATS(rtt_p99_us, u32, gauge, "Round-trip time, 99th percentile"),
    STATS(clock_synced, u32, gauge, "Whether the offset to the server clock is known"),
    STATS(sync_rtt_us, u32, gauge, "Round-trip time of the ping that set the clock offset"),
    STATS(rtt_histogram, histogram, counter, "Histogram of round-trip times"),
    STATS(sync_delay_samples, u32, counter, "Sync notices whose delay was measured"),
    STATS(sync_delay_last_us, u32, gauge, "Delay of sync notices, last"),
    STATS(sync_delay_min_us, u32, gauge, "Delay of sync notices, lowest"),
    STATS(sync_delay_max_us, u32, gauge, "Delay of sync notices, highest"),
    STATS(sync_delay_p50_us, u32, gauge, "Delay of sync notices, median"),
    STATS(sync_delay_p95_us, u32, gauge, "Delay of sync notices, 95th percentile"),
    STATS(sync_delay_p99_us, u32, gauge, "Delay of sync notices, 99th percentile"),
    STATS(sync_delay_histogram, histogram, counter, "Histogram of the delays of sync notices"),
    STATS(player_recv_blocks_per_sec, u32, gauge, "Blocks queued for playback in the last second"),
    STATS(callbacks_per_sec, u32, gauge, "Device periods in the last second"),
    STATS(dequeued_per_sec, u32, gauge, "Blocks rendered in the last second"),
    STATS(playback_buffer_frames, u32, gauge, "Fill of the playback buffer in frames"),
    STATS(min_frames, u32, gauge, "Lowest fill in frames since the previous report"),
    STATS(max_frames, u32, gauge, "Highest fill in frames since the previous report"),
    STATS(target_frames, u32, gauge, "Target fill of the drift control in frames"),
    STATS(error_frames, i32, gauge, "Fill minus target in frames"),
    STATS(buffer_us, i32, gauge, "Buffered audio"),
    STATS(buffer_centiblocks, i32, gauge, "Buffered audio in hundredths of a block"),
    STATS(ratio_ppm, i32, gauge, "Estimated speed of the server clock against the device clock"),
    STATS(callback_duration_last_us, u32, gauge, "Processing time of a device period, last"),
    STATS(callback_duration_max_us, u32, gauge, "Processing time of a device period, highest"),
    STATS(underruns, u32, counter, "Device periods without a block to play"),
    STATS(overruns, u32, counter, "Blocks dropped because the playback buffer was full"),
    STATS(playback_dropped, u32, counter, "Blocks dropped before playback, including overruns"),
    STATS(capture_dropped, u32, counter, "Captured blocks dropped"),
    STATS(block_callback_last_us, u32, gauge, "Time from arrival to delivery of a block, last"),
    STATS(block_callback_max_us, u32, gauge, "Time from arrival to delivery of a block, highest"),
    STATS(queue_latency_last_us, u32, gauge, "Time from delivery to playback of a block, last"),
    STATS(queue_latency_max_us, u32, gauge, "Time from delivery to playback of a block, highest"),
    STATS(server_to_output_last_us, u32, gauge,
          "Time from the server's timestamp to playback of a block, last"),
    STATS(server_to_output_max_us, u32, gauge,
          "Time from the server's timestamp to playback of a block, highest"),
    STATS(rendered_frames, u64, counter, "Frames rendered"),
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
