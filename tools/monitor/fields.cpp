#include "tools/monitor/fields.h"

#include <cstring>

namespace tavistro::monitor {

namespace {

#define TAVISTRO_FIELD(name, type, kind, help)                                              \
    Field {                                                                                 \
#name, offsetof(tavistro_stats_block, name), FieldType::type, FieldKind::kind, help \
    }

constexpr Field table[] = {
    TAVISTRO_FIELD(state, u32, gauge, "State of the engine, tavistro_state_code"),
    TAVISTRO_FIELD(error_code, u32, gauge, "Error of the engine, tavistro_error_code"),
    TAVISTRO_FIELD(client_id, u32, gauge, "Identity of the client"),
    TAVISTRO_FIELD(stream_sample_rate, u32, gauge, "Sample rate of the stream in Hz"),
    TAVISTRO_FIELD(stream_block_frames, u32, gauge, "Frames per block of the stream"),
    TAVISTRO_FIELD(client_recv_blocks_per_sec, u32, gauge,
                   "New blocks received in the last second"),
    TAVISTRO_FIELD(client_duplicate_blocks_per_sec, u32, gauge,
                   "Late or repeated blocks in the last second"),
    TAVISTRO_FIELD(rtt_samples, u32, counter, "Round trips measured"),
    TAVISTRO_FIELD(ping_timeouts, u32, counter, "Pings without an answer"),
    TAVISTRO_FIELD(rtt_last_us, u32, gauge, "Round trip, last, in microseconds"),
    TAVISTRO_FIELD(rtt_min_us, u32, gauge, "Round trip, lowest, in microseconds"),
    TAVISTRO_FIELD(rtt_max_us, u32, gauge, "Round trip, highest, in microseconds"),
    TAVISTRO_FIELD(rtt_p50_us, u32, gauge, "Round trip, median, in microseconds"),
    TAVISTRO_FIELD(rtt_p95_us, u32, gauge, "Round trip, 95th percentile, in microseconds"),
    TAVISTRO_FIELD(rtt_p99_us, u32, gauge, "Round trip, 99th percentile, in microseconds"),
    TAVISTRO_FIELD(clock_synced, u32, gauge, "Whether the offset to the server clock is known"),
    TAVISTRO_FIELD(sync_rtt_us, u32, gauge, "Round trip that set the clock offset in microseconds"),
    TAVISTRO_FIELD(rtt_histogram, histogram, counter, "Round trips by duration"),
    TAVISTRO_FIELD(sync_delay_samples, u32, counter, "Sync notices measured"),
    TAVISTRO_FIELD(sync_delay_last_us, u32, gauge, "Delay of sync notices, last, in microseconds"),
    TAVISTRO_FIELD(sync_delay_min_us, u32, gauge, "Delay of sync notices, lowest, in microseconds"),
    TAVISTRO_FIELD(sync_delay_max_us, u32, gauge,
                   "Delay of sync notices, highest, in microseconds"),
    TAVISTRO_FIELD(sync_delay_p50_us, u32, gauge, "Delay of sync notices, median, in microseconds"),
    TAVISTRO_FIELD(sync_delay_p95_us, u32, gauge,
                   "Delay of sync notices, 95th percentile, in microseconds"),
    TAVISTRO_FIELD(sync_delay_p99_us, u32, gauge,
                   "Delay of sync notices, 99th percentile, in microseconds"),
    TAVISTRO_FIELD(sync_delay_histogram, histogram, counter, "Delays of sync notices by duration"),
    TAVISTRO_FIELD(player_recv_blocks_per_sec, u32, gauge,
                   "Blocks queued for playing in the last second"),
    TAVISTRO_FIELD(callbacks_per_sec, u32, gauge, "Device periods in the last second"),
    TAVISTRO_FIELD(dequeued_per_sec, u32, gauge, "Blocks rendered in the last second"),
    TAVISTRO_FIELD(playback_buffer_frames, u32, gauge, "Fill of the playback buffer in frames"),
    TAVISTRO_FIELD(min_frames, u32, gauge, "Lowest fill since the report before"),
    TAVISTRO_FIELD(max_frames, u32, gauge, "Highest fill since the report before"),
    TAVISTRO_FIELD(target_frames, u32, gauge, "Fill that the drift control aims at"),
    TAVISTRO_FIELD(error_frames, i32, gauge, "Fill minus target in frames"),
    TAVISTRO_FIELD(buffer_us, i32, gauge, "Buffered audio in microseconds"),
    TAVISTRO_FIELD(buffer_centiblocks, i32, gauge, "Buffered audio in hundredths of a block"),
    TAVISTRO_FIELD(ratio_ppm, i32, gauge,
                   "Estimated server clock against device clock in parts per million"),
    TAVISTRO_FIELD(callback_duration_last_us, u32, gauge,
                   "Work of a device period, last, in microseconds"),
    TAVISTRO_FIELD(callback_duration_max_us, u32, gauge,
                   "Work of a device period, highest, in microseconds"),
    TAVISTRO_FIELD(underruns, u32, counter, "Device periods without a block to play"),
    TAVISTRO_FIELD(overruns, u32, counter, "Blocks that found the playback buffer full"),
    TAVISTRO_FIELD(playback_dropped, u32, counter,
                   "Blocks dropped before playing, overruns among them"),
    TAVISTRO_FIELD(capture_dropped, u32, counter, "Captured blocks dropped"),
    TAVISTRO_FIELD(block_callback_last_us, u32, gauge,
                   "Arrival of a block to the end of its delivery, last, in microseconds"),
    TAVISTRO_FIELD(block_callback_max_us, u32, gauge,
                   "Arrival of a block to the end of its delivery, highest, in microseconds"),
    TAVISTRO_FIELD(queue_latency_last_us, u32, gauge,
                   "Delivery of a block to its playing, last, in microseconds"),
    TAVISTRO_FIELD(queue_latency_max_us, u32, gauge,
                   "Delivery of a block to its playing, highest, in microseconds"),
    TAVISTRO_FIELD(server_to_output_last_us, u32, gauge,
                   "Server's time of a block to its playing, last, in microseconds"),
    TAVISTRO_FIELD(server_to_output_max_us, u32, gauge,
                   "Server's time of a block to its playing, highest, in microseconds"),
    TAVISTRO_FIELD(rendered_frames, u64, counter, "Frames rendered"),
};

#undef TAVISTRO_FIELD

template <typename Value>
Value get(const tavistro_stats_block& block, const Field& field) {
    Value value;
    std::memcpy(&value, reinterpret_cast<const std::byte*>(&block) + field.offset, sizeof value);
    return value;
}

template <typename Value>
void put(tavistro_stats_block& block, const Field& field, const Value& value) {
    std::memcpy(reinterpret_cast<std::byte*>(&block) + field.offset, &value, sizeof value);
}

}  // namespace

std::span<const Field> fields() {
    return table;
}

std::int64_t number(const tavistro_stats_block& block, const Field& field) {
    if (field.type == FieldType::u64) return get<std::int64_t>(block, field);
    if (field.type == FieldType::i32) return get<std::int32_t>(block, field);
    return get<std::uint32_t>(block, field);
}

void set_number(tavistro_stats_block& block, const Field& field, std::int64_t value) {
    if (field.type == FieldType::u64) return put(block, field, value);
    put(block, field, static_cast<std::uint32_t>(value));
}

Histogram histogram(const tavistro_stats_block& block, const Field& field) {
    return get<Histogram>(block, field);
}

void set_histogram(tavistro_stats_block& block, const Field& field, const Histogram& values) {
    put(block, field, values);
}

}  // namespace tavistro::monitor
