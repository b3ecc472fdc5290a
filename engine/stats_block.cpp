#include "engine/stats_block.h"

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstring>
#include <limits>
#include <new>
#include <span>
#include <string>
#include <type_traits>

namespace tavistro {
namespace {

/// Unsigned fields saturate with the top bit clear, for readers without unsigned types.
template <std::unsigned_integral Source, std::unsigned_integral Field>
void put(Field& field, Source value) noexcept {
    constexpr std::uint64_t limit = std::numeric_limits<std::make_signed_t<Field>>::max();
    field = static_cast<Field>(std::min<std::uint64_t>(value, limit));
}

/// Truncates toward zero and saturates; NaN becomes 0.
void put(std::int32_t& field, double value) noexcept {
    using Limits = std::numeric_limits<std::int32_t>;
    if (value != value) value = 0.0;
    field = static_cast<std::int32_t>(
        std::clamp(value, static_cast<double>(Limits::min()), static_cast<double>(Limits::max())));
}

void put(std::span<std::uint32_t, TAVISTRO_STATS_HISTOGRAM_BUCKETS> fields,
         const LatencyHistogram& values) noexcept {
    for (std::size_t i = 0; i < values.size(); ++i)
        put(fields[i], values[i]);
}

/// Collects fields for the block: consecutive puts of adjacent fields of the same width are stored
/// in one operation.
class Fields {
  public:
    explicit Fields(platform::NamedMemory& memory) noexcept : memory_(memory) {}

    tavistro_stats_block block{};  ///< the values put so far, in the block's layout

    /// Precondition: `field` is a member of `block`.
    template <typename Field, typename Value>
    void operator()(Field& field, const Value& value) noexcept {
        using Single = std::remove_all_extents_t<Field>;
        put(field, value);
        const auto begin = static_cast<std::size_t>(reinterpret_cast<const char*>(&field) -
                                                    reinterpret_cast<const char*>(&block));
        if (begin != end_ || sizeof(Single) != width_) {
            store();
            begin_ = begin;
            width_ = sizeof(Single);
        }
        end_ = begin + sizeof field;
    }

    /// Stores the pending fields. Returns true if all fields put so far were stored.
    bool store() noexcept {
        if (width_ == sizeof(std::uint32_t)) store_run<std::uint32_t>();
        if (width_ == sizeof(std::uint64_t)) store_run<std::uint64_t>();
        begin_ = end_;
        return stored_;
    }

  private:
    template <typename Word>
    void store_run() noexcept {
        const auto* first =
            reinterpret_cast<const Word*>(reinterpret_cast<const char*>(&block) + begin_);
        stored_ =
            memory_.store(begin_, std::span(first, (end_ - begin_) / sizeof(Word))) && stored_;
    }

    platform::NamedMemory& memory_;
    std::size_t begin_ = 0;  ///< byte range of the pending fields
    std::size_t end_ = 0;
    std::size_t width_ = 0;  ///< bytes of each pending field
    bool stored_ = true;
};

}  // namespace

bool StatsBlock::open(std::uint32_t client_id) noexcept {
    const std::lock_guard lock(mutex_);
    if (memory_.is_open()) return true;
    try {
        const std::string name = "TavistroEngineStats_" + std::to_string(client_id) + "_v6";
        if (!memory_.open(name, TAVISTRO_STATS_BLOCK_BYTES)) return false;
    } catch (const std::bad_alloc&) {
        return false;
    }
    // Readers recognise a valid block by its magic: clear it first and write it last.
    constexpr std::array<std::uint64_t, TAVISTRO_STATS_BLOCK_BYTES / sizeof(std::uint64_t)> zeros{};
    bool clean = memory_.store(0, zeros);
    Fields fields(memory_);
    fields(fields.block.layout_version, TAVISTRO_STATS_LAYOUT_VERSION);
    fields(fields.block.client_id, client_id);
    clean = fields.store() && clean;
    std::array<std::uint32_t, 1> magic;
    std::memcpy(magic.data(), TAVISTRO_STATS_MAGIC, sizeof magic);
    clean = memory_.store(0, magic) && clean;
    if (!clean) memory_.close();
    return clean;
}

void StatsBlock::close() noexcept {
    const std::lock_guard lock(mutex_);
    memory_.close();
}

template <typename Write>
void StatsBlock::update(const Write& write) noexcept {
    const std::lock_guard lock(mutex_);
    if (!memory_.is_open()) return;
    Fields fields(memory_);
    write(fields.block, fields);
    fields.store();
}

void StatsBlock::write_state(EngineState state) noexcept {
    update([=](auto& block, auto& put) { put(block.state, code_of(state)); });
}

void StatsBlock::write_error(ErrorCode error) noexcept {
    update([=](auto& block, auto& put) { put(block.error_code, code_of(error)); });
}

void StatsBlock::write_stream_format(std::uint32_t sample_rate,
                                     std::uint32_t block_frames) noexcept {
    update([&](auto& block, auto& put) {
        put(block.stream_sample_rate, sample_rate);
        put(block.stream_block_frames, block_frames);
    });
}

void StatsBlock::write_client_telemetry(const ClientTelemetry& telemetry) noexcept {
    update([&](auto& block, auto& put) {
        put(block.client_recv_blocks_per_sec, telemetry.recvBlocksPerSec);
        put(block.client_duplicate_blocks_per_sec, telemetry.duplicateBlocksPerSec);
        put(block.rtt_samples, telemetry.rtt_samples);
        put(block.ping_timeouts, telemetry.ping_timeouts);
        put(block.rtt_last_us, telemetry.rtt_last_us);
        put(block.rtt_min_us, telemetry.rtt_min_us);
        put(block.rtt_max_us, telemetry.rtt_max_us);
        put(block.rtt_p50_us, telemetry.rtt_p50_us);
        put(block.rtt_p95_us, telemetry.rtt_p95_us);
        put(block.rtt_p99_us, telemetry.rtt_p99_us);
        put(block.clock_synced, telemetry.clock_synced ? 1u : 0u);
        put(block.sync_rtt_us, telemetry.sync_rtt_us);
        put(block.rtt_histogram, telemetry.rtt_histogram);
        put(block.sync_delay_samples, telemetry.sync_delay_samples);
        put(block.sync_delay_last_us, telemetry.sync_delay_last_us);
        put(block.sync_delay_min_us, telemetry.sync_delay_min_us);
        put(block.sync_delay_max_us, telemetry.sync_delay_max_us);
        put(block.sync_delay_p50_us, telemetry.sync_delay_p50_us);
        put(block.sync_delay_p95_us, telemetry.sync_delay_p95_us);
        put(block.sync_delay_p99_us, telemetry.sync_delay_p99_us);
        put(block.sync_delay_histogram, telemetry.sync_delay_histogram);
        put(block.block_callback_last_us, telemetry.callback_last_us);
        put(block.block_callback_max_us, telemetry.callback_max_us);
    });
}

void StatsBlock::write_player_telemetry(const PlayerTelemetry& telemetry) noexcept {
    update([&](auto& block, auto& put) {
        put(block.player_recv_blocks_per_sec, telemetry.recvBlocksPerSec);
        put(block.callbacks_per_sec, telemetry.callbacksPerSec);
        put(block.dequeued_per_sec, telemetry.dequeuedPerSec);
        put(block.playback_buffer_frames, telemetry.playback_buffer_frames);
        put(block.min_frames, telemetry.minFrames);
        put(block.max_frames, telemetry.maxFrames);
        put(block.target_frames, telemetry.target_frames);
        put(block.error_frames, telemetry.error_frames);
        put(block.buffer_us, telemetry.buffer_ms * 1000.0);
        put(block.buffer_centiblocks, telemetry.buffer_blocks * 100.0);
        put(block.ratio_ppm, (telemetry.pll_ratio - 1.0) * 1000000.0);
        put(block.callback_duration_last_us, telemetry.callback_duration_last_us);
        put(block.callback_duration_max_us, telemetry.callback_duration_max_us);
        put(block.underruns, telemetry.underruns);
        put(block.overruns, telemetry.overruns);
        put(block.playback_dropped, telemetry.playbackDropped);
        put(block.capture_dropped, telemetry.captureDropped);
        put(block.queue_latency_last_us, telemetry.queue_latency_last_us);
        put(block.queue_latency_max_us, telemetry.queue_latency_max_us);
        put(block.server_to_output_last_us, telemetry.server_to_output_last_us);
        put(block.server_to_output_max_us, telemetry.server_to_output_max_us);
        put(block.rendered_frames, telemetry.renderedFrames);
    });
}

}  // namespace tavistro
