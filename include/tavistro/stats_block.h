/*
 * Tavistro statistics block: interface for other processes.
 *
 * During a run the engine publishes its state and statistics in a named shared memory block of
 * 288 bytes. <id> is the run's client_id in decimal:
 *
 *     Windows   Local\TavistroEngineStats_<id>_v6   (OpenFileMappingA, MapViewOfFile)
 *     Linux     /TavistroEngineStats_<id>_v6        (shm_open, pread)
 *
 * Rules for readers:
 * - On Windows map the block read-only. On Linux read all 288 bytes with one pread: any user may
 *   shrink the object, and a reader that touches a removed page of a mapping gets SIGBUS.
 * - Check magic and layout_version first, and again after reopening.
 * - In a mapping read each field once, through a volatile pointer or with an atomic load of the
 *   field's width. The engine stores each field with one write, so no read is torn. The pread copy
 *   is made by the kernel; some older processors copy the last field of a range byte by byte.
 * - There is no lock and no generation count: one reading may mix two consecutive reports, and
 *   different threads write the network fields and the player fields. Differences between two
 *   readings are valid if these are more than one second apart.
 * - Unsigned 32-bit fields saturate at 2147483647, rendered_frames at 9223372036854775807.
 * - Fields are zero until the first report. The block is removed when the run has ended and the
 *   last holder has closed it; an open handle or mapping keeps the last values. A new run creates
 *   a new block (or clears one that is still held): reopen it when state is 6 or 7.
 * - The player's counters (underruns, overruns, playback_dropped, capture_dropped,
 *   rendered_frames) and maximum times restart at 0 with each start of the audio path, also within
 *   a run: after a device recovery or a stream format change. The network client's continue.
 * - Two engines with the same client_id share one block: each field holds the last value written by
 *   either, and the engine that starts later clears the whole block.
 *
 * Plain C99; also compiles as C++.
 */
#ifndef TAVISTRO_STATS_BLOCK_H
#define TAVISTRO_STATS_BLOCK_H

#include <stdint.h>

#define TAVISTRO_STATS_MAGIC "TENG"
#define TAVISTRO_STATS_LAYOUT_VERSION 6u
#define TAVISTRO_STATS_BLOCK_BYTES 288u
#define TAVISTRO_STATS_HISTOGRAM_BUCKETS 10u

/*
 * Upper bounds of the histogram buckets in microseconds, inclusive. Bucket i counts the values that
 * are above bound i - 1 and not above bound i; the last bucket counts everything above 100000.
 */
#define TAVISTRO_STATS_HISTOGRAM_BOUNDS_US \
    { 250u, 500u, 1000u, 2000u, 5000u, 10000u, 20000u, 50000u, 100000u, 4294967295u }

/*
 * Names that end in _us: microseconds. Counters count from the start of the client or the player.
 * The "last interval" of rates is at least 1000 ms.
 */
typedef struct tavistro_stats_block {
    char magic[4]; /* "TENG", not zero-terminated */
    uint32_t layout_version;
    uint32_t state;      /* tavistro_state_code of engine.h */
    uint32_t error_code; /* tavistro_error_code of engine.h */
    uint32_t client_id;
    uint32_t stream_sample_rate;              /* Hz */
    uint32_t stream_block_frames;             /* frames per block */
    uint32_t client_recv_blocks_per_sec;      /* new blocks in the last interval */
    uint32_t client_duplicate_blocks_per_sec; /* late or repeated blocks in the last interval */
    uint32_t rtt_samples;
    uint32_t ping_timeouts; /* pings without an answer after 3000 ms */
    uint32_t rtt_last_us;
    uint32_t rtt_min_us;
    uint32_t rtt_max_us;
    uint32_t rtt_p50_us;
    uint32_t rtt_p95_us;
    uint32_t rtt_p99_us;
    uint32_t clock_synced; /* 0 or 1 */
    uint32_t sync_rtt_us;
    uint32_t rtt_histogram[TAVISTRO_STATS_HISTOGRAM_BUCKETS]; /* bounds: see above */
    uint32_t sync_delay_samples;
    uint32_t sync_delay_last_us;
    uint32_t sync_delay_min_us;
    uint32_t sync_delay_max_us;
    uint32_t sync_delay_p50_us;
    uint32_t sync_delay_p95_us;
    uint32_t sync_delay_p99_us;
    uint32_t sync_delay_histogram[TAVISTRO_STATS_HISTOGRAM_BUCKETS]; /* bounds: see above */
    uint32_t player_recv_blocks_per_sec; /* blocks queued for playback in the last interval */
    uint32_t callbacks_per_sec;          /* device periods in the last interval */
    uint32_t dequeued_per_sec;           /* blocks rendered in the last interval */
    uint32_t playback_buffer_frames;     /* latest fill level of the playback buffer */
    uint32_t min_frames;                 /* lowest fill level since the previous report */
    uint32_t max_frames;                 /* highest fill level since the previous report */
    uint32_t target_frames;
    int32_t error_frames;       /* fill level minus target */
    int32_t buffer_us;          /* buffered audio */
    int32_t buffer_centiblocks; /* buffered audio in 1/100 block */
    int32_t ratio_ppm; /* estimated rate of the server clock relative to the device clock, ppm */
    uint32_t callback_duration_last_us; /* processing time of one device period */
    uint32_t callback_duration_max_us;
    uint32_t underruns;
    uint32_t overruns;
    uint32_t playback_dropped;
    uint32_t capture_dropped;
    uint32_t block_callback_last_us; /* from arrival of a block to the end of its delivery */
    uint32_t block_callback_max_us;
    uint32_t queue_latency_last_us; /* from delivery of a block to its playback */
    uint32_t queue_latency_max_us;
    uint32_t server_to_output_last_us; /* from a block's server time to its playback */
    uint32_t server_to_output_max_us;
    uint32_t reserved; /* always 0 */
    uint64_t rendered_frames;
} tavistro_stats_block;

#define TAVISTRO_STATS_ASSERT(name, condition) \
    typedef char tavistro_stats_layout_##name[(condition) ? 1 : -1]
TAVISTRO_STATS_ASSERT(size, sizeof(tavistro_stats_block) == TAVISTRO_STATS_BLOCK_BYTES);
#if defined(__GNUC__) || defined(_MSC_VER)
#define TAVISTRO_STATS_ASSERT_OFFSET(field, offset) \
    TAVISTRO_STATS_ASSERT(field, __builtin_offsetof(tavistro_stats_block, field) == (offset))
TAVISTRO_STATS_ASSERT_OFFSET(magic, 0);
TAVISTRO_STATS_ASSERT_OFFSET(layout_version, 4);
TAVISTRO_STATS_ASSERT_OFFSET(state, 8);
TAVISTRO_STATS_ASSERT_OFFSET(error_code, 12);
TAVISTRO_STATS_ASSERT_OFFSET(client_id, 16);
TAVISTRO_STATS_ASSERT_OFFSET(stream_sample_rate, 20);
TAVISTRO_STATS_ASSERT_OFFSET(stream_block_frames, 24);
TAVISTRO_STATS_ASSERT_OFFSET(client_recv_blocks_per_sec, 28);
TAVISTRO_STATS_ASSERT_OFFSET(client_duplicate_blocks_per_sec, 32);
TAVISTRO_STATS_ASSERT_OFFSET(rtt_samples, 36);
TAVISTRO_STATS_ASSERT_OFFSET(ping_timeouts, 40);
TAVISTRO_STATS_ASSERT_OFFSET(rtt_last_us, 44);
TAVISTRO_STATS_ASSERT_OFFSET(rtt_min_us, 48);
TAVISTRO_STATS_ASSERT_OFFSET(rtt_max_us, 52);
TAVISTRO_STATS_ASSERT_OFFSET(rtt_p50_us, 56);
TAVISTRO_STATS_ASSERT_OFFSET(rtt_p95_us, 60);
TAVISTRO_STATS_ASSERT_OFFSET(rtt_p99_us, 64);
TAVISTRO_STATS_ASSERT_OFFSET(clock_synced, 68);
TAVISTRO_STATS_ASSERT_OFFSET(sync_rtt_us, 72);
TAVISTRO_STATS_ASSERT_OFFSET(rtt_histogram, 76);
TAVISTRO_STATS_ASSERT_OFFSET(sync_delay_samples, 116);
TAVISTRO_STATS_ASSERT_OFFSET(sync_delay_last_us, 120);
TAVISTRO_STATS_ASSERT_OFFSET(sync_delay_min_us, 124);
TAVISTRO_STATS_ASSERT_OFFSET(sync_delay_max_us, 128);
TAVISTRO_STATS_ASSERT_OFFSET(sync_delay_p50_us, 132);
TAVISTRO_STATS_ASSERT_OFFSET(sync_delay_p95_us, 136);
TAVISTRO_STATS_ASSERT_OFFSET(sync_delay_p99_us, 140);
TAVISTRO_STATS_ASSERT_OFFSET(sync_delay_histogram, 144);
TAVISTRO_STATS_ASSERT_OFFSET(player_recv_blocks_per_sec, 184);
TAVISTRO_STATS_ASSERT_OFFSET(callbacks_per_sec, 188);
TAVISTRO_STATS_ASSERT_OFFSET(dequeued_per_sec, 192);
TAVISTRO_STATS_ASSERT_OFFSET(playback_buffer_frames, 196);
TAVISTRO_STATS_ASSERT_OFFSET(min_frames, 200);
TAVISTRO_STATS_ASSERT_OFFSET(max_frames, 204);
TAVISTRO_STATS_ASSERT_OFFSET(target_frames, 208);
TAVISTRO_STATS_ASSERT_OFFSET(error_frames, 212);
TAVISTRO_STATS_ASSERT_OFFSET(buffer_us, 216);
TAVISTRO_STATS_ASSERT_OFFSET(buffer_centiblocks, 220);
TAVISTRO_STATS_ASSERT_OFFSET(ratio_ppm, 224);
TAVISTRO_STATS_ASSERT_OFFSET(callback_duration_last_us, 228);
TAVISTRO_STATS_ASSERT_OFFSET(callback_duration_max_us, 232);
TAVISTRO_STATS_ASSERT_OFFSET(underruns, 236);
TAVISTRO_STATS_ASSERT_OFFSET(overruns, 240);
TAVISTRO_STATS_ASSERT_OFFSET(playback_dropped, 244);
TAVISTRO_STATS_ASSERT_OFFSET(capture_dropped, 248);
TAVISTRO_STATS_ASSERT_OFFSET(block_callback_last_us, 252);
TAVISTRO_STATS_ASSERT_OFFSET(block_callback_max_us, 256);
TAVISTRO_STATS_ASSERT_OFFSET(queue_latency_last_us, 260);
TAVISTRO_STATS_ASSERT_OFFSET(queue_latency_max_us, 264);
TAVISTRO_STATS_ASSERT_OFFSET(server_to_output_last_us, 268);
TAVISTRO_STATS_ASSERT_OFFSET(server_to_output_max_us, 272);
TAVISTRO_STATS_ASSERT_OFFSET(reserved, 276);
TAVISTRO_STATS_ASSERT_OFFSET(rendered_frames, 280);
#endif

#endif
