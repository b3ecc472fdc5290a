/*
 * Tavistro engine: C interface for host programs.
 *
 * A process has at most one engine. The host creates it, starts a run with a configuration file,
 * polls the 904-byte state record, stops the run and destroys the engine:
 *
 *     tavistro_engine* engine = tavistro_engine_create();
 *     if (engine && tavistro_engine_start_from_config(engine, "tavistro.ini")) {
 *         tavistro_engine_state state;
 *         while (tavistro_engine_get_state(engine, &state) && state.state != TAVISTRO_STATE_FAILED)
 *             ...wait, e.g. 100 ms, and show the state...
 *     }
 *     tavistro_engine_stop(engine);
 *     tavistro_engine_destroy(engine);
 *
 * Stop the run before you unload the library: unloading removes the code that the engine's threads
 * are executing, and the process crashes. When the process exits without a stop, the system ends
 * these threads. On Linux the statistics block, /dev/shm/TavistroEngineStats_ID_v6, then remains
 * with its last values until another run with the same client_id has opened and closed it.
 *
 * Threads: any thread may call tavistro_engine_get_state at any time between create and destroy.
 * All other functions must be called from one thread at a time.
 * Real-time safety: none. Every function may lock a mutex; do not call one from an audio callback.
 *
 * The state record holds codes, not text. Each code is named below; the host chooses the wording
 * that it shows to its users.
 *
 * Plain C99; also compiles as C++.
 */
#ifndef TAVISTRO_ENGINE_H
#define TAVISTRO_ENGINE_H

#include <stdint.h>

#if defined(_WIN32)
#if defined(TAVISTRO_BUILDING_ENGINE)
#define TAVISTRO_API
#else
#define TAVISTRO_API __declspec(dllimport)
#endif
#elif defined(__GNUC__)
#define TAVISTRO_API __attribute__((visibility("default")))
#else
#define TAVISTRO_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The value of tavistro_engine_state.version for the layout in this header. */
#define TAVISTRO_STATE_RECORD_VERSION 5u
#define TAVISTRO_MAX_EVENTS 8u
#define TAVISTRO_MAX_METERS 32u

/* tavistro_engine_state.state */
enum tavistro_state_code {
    TAVISTRO_STATE_IDLE = 0,       /* created, never started */
    TAVISTRO_STATE_STARTING = 1,   /* loading the configuration, starting the network client */
    TAVISTRO_STATE_CONNECTED = 2,  /* waiting for the server's stream format, without a timeout */
    TAVISTRO_STATE_RUNNING = 3,    /* the audio path is active */
    TAVISTRO_STATE_RESTARTING = 4, /* device retry, stream format change or device recovery */
    TAVISTRO_STATE_STOPPING = 5,
    TAVISTRO_STATE_STOPPED = 6, /* the run was ended by a stop */
    TAVISTRO_STATE_FAILED = 7   /* the run was ended by the error in error_code */
};

/* tavistro_engine_state.status_level */
enum tavistro_status_level {
    TAVISTRO_LEVEL_NONE = 0,
    TAVISTRO_LEVEL_HEALTHY = 1,
    TAVISTRO_LEVEL_WARNING = 2,
    TAVISTRO_LEVEL_PENDING = 3, /* the engine is working on it or waiting for it */
    TAVISTRO_LEVEL_ERROR = 4
};

/* tavistro_engine_state.status_category and tavistro_engine_event.subject */
enum tavistro_status_category {
    TAVISTRO_CATEGORY_ENGINE = 0,
    TAVISTRO_CATEGORY_NETWORK = 1,
    TAVISTRO_CATEGORY_DEVICE_STALL = 2,
    TAVISTRO_CATEGORY_SAMPLE_RATE_MISMATCH = 3,
    TAVISTRO_CATEGORY_BLOCK_SIZE_MISMATCH = 4,
    TAVISTRO_CATEGORY_UNDERRUN = 5,
    TAVISTRO_CATEGORY_OVERRUN = 6,
    TAVISTRO_CATEGORY_CAPTURE_DROP = 7,
    TAVISTRO_CATEGORY_PLAYBACK_DROP = 8,
    TAVISTRO_CATEGORY_AUDIO_DEVICE = 9,
    TAVISTRO_CATEGORY_DEVICE_RESET = 10,
    TAVISTRO_CATEGORY_OUTPUT_READY_FAILURE = 11,
    TAVISTRO_CATEGORY_COMPATIBILITY = 12
};

/* tavistro_engine_state.error_code and tavistro_engine_event.error_code; 8 is unused */
enum tavistro_error_code {
    TAVISTRO_ERROR_NONE = 0,
    TAVISTRO_ERROR_NO_CONFIG_PATH = 1,
    TAVISTRO_ERROR_ALREADY_STARTED = 2,
    TAVISTRO_ERROR_CONFIG_INVALID = 3,
    TAVISTRO_ERROR_CLIENT_START_FAILED = 4,
    TAVISTRO_ERROR_STOPPED_BEFORE_STREAM = 5,
    TAVISTRO_ERROR_STREAM_FORMAT_REJECTED = 6,
    TAVISTRO_ERROR_AUDIO_DEVICE_FAILED = 7,
    TAVISTRO_ERROR_WORKER_START_FAILED = 9,
    TAVISTRO_ERROR_STATS_BLOCK_FAILED = 10,
    TAVISTRO_ERROR_SERVER_INCOMPATIBLE = 11
};

/* tavistro_engine_event.kind */
enum tavistro_event_kind {
    TAVISTRO_EVENT_RECOVERY_REQUESTED = 1,
    TAVISTRO_EVENT_ATTEMPT_STARTED = 2,
    TAVISTRO_EVENT_ATTEMPT_FAILED = 3,
    TAVISTRO_EVENT_RECOVERED = 4,
    TAVISTRO_EVENT_GAVE_UP = 5
};

/* tavistro_engine_state.status_message and .error_detail, tavistro_engine_event.message */
enum tavistro_message_id {
    TAVISTRO_MESSAGE_NONE = 0,
    TAVISTRO_MESSAGE_NO_CONFIG_PATH = 1,
    TAVISTRO_MESSAGE_ALREADY_STARTED = 2,
    TAVISTRO_MESSAGE_STARTING = 3,
    TAVISTRO_MESSAGE_WORKER_START_FAILED = 4,
    TAVISTRO_MESSAGE_CONFIG_NOT_LOADED = 5,
    TAVISTRO_MESSAGE_STATS_BLOCK_FAILED = 6,
    TAVISTRO_MESSAGE_STOPPED = 7,
    TAVISTRO_MESSAGE_WAITING_FOR_STREAM = 8,
    TAVISTRO_MESSAGE_STOPPED_BEFORE_STREAM = 9,
    TAVISTRO_MESSAGE_STREAM_FORMAT_REFUSED = 10,
    TAVISTRO_MESSAGE_RUNNING = 11,
    TAVISTRO_MESSAGE_STOPPING = 12,
    TAVISTRO_MESSAGE_CLIENT_ATTEMPT = 13,
    TAVISTRO_MESSAGE_CLIENT_ATTEMPT_FAILED = 14,
    TAVISTRO_MESSAGE_CLIENT_RETRY_WAIT = 15,
    TAVISTRO_MESSAGE_CLIENT_FAILED = 16,
    TAVISTRO_MESSAGE_ASIO_START_FAILED = 17,
    TAVISTRO_MESSAGE_ASIO_ATTEMPT = 18,
    TAVISTRO_MESSAGE_ASIO_RETRY_WAIT = 19,
    TAVISTRO_MESSAGE_ASIO_FAILED = 20,
    TAVISTRO_MESSAGE_LOOPBACK_START_FAILED = 21,
    TAVISTRO_MESSAGE_FORMAT_CHANGED = 22,
    TAVISTRO_MESSAGE_RECOVERY_GAVE_UP = 23,
    TAVISTRO_MESSAGE_RECOVERY_ATTEMPT = 24,
    TAVISTRO_MESSAGE_RECOVERY_FORMAT_REFUSED = 25,
    TAVISTRO_MESSAGE_RECOVERY_ATTEMPT_FAILED = 26,
    TAVISTRO_MESSAGE_DEVICE_RECOVERED = 27,
    TAVISTRO_MESSAGE_SYNC_LOST = 28, /* no sync notice from the server for more than 3000 ms */
    TAVISTRO_MESSAGE_DEVICE_RESET_REQUESTED = 29,
    TAVISTRO_MESSAGE_SAMPLE_RATE_DIFFERS = 30,
    TAVISTRO_MESSAGE_BLOCK_SIZE_DIFFERS = 31, /* or blocks in another format were rejected */
    TAVISTRO_MESSAGE_DEVICE_STALLED = 32,
    TAVISTRO_MESSAGE_OUTPUT_READY_FAILURES = 33,
    TAVISTRO_MESSAGE_CAPTURE_DROPS = 34,
    TAVISTRO_MESSAGE_PLAYBACK_DROPS = 35,
    TAVISTRO_MESSAGE_OVERRUNS = 36,
    TAVISTRO_MESSAGE_UNDERRUNS = 37,
    TAVISTRO_MESSAGE_EVENT_RECOVERY_REQUESTED = 38,
    TAVISTRO_MESSAGE_EVENT_CLIENT_RETRY = 39,
    TAVISTRO_MESSAGE_EVENT_ASIO_RETRY = 40,
    TAVISTRO_MESSAGE_EVENT_RECOVERY_ATTEMPT = 41,
    TAVISTRO_MESSAGE_EVENT_CLIENT_FAILED = 42,
    TAVISTRO_MESSAGE_EVENT_ASIO_FAILED = 43,
    TAVISTRO_MESSAGE_EVENT_RECOVERY_FAILED = 44,
    TAVISTRO_MESSAGE_EVENT_RECOVERY_FORMAT_REFUSED = 45,
    TAVISTRO_MESSAGE_EVENT_CLIENT_RECOVERED = 46,
    TAVISTRO_MESSAGE_EVENT_ASIO_RECOVERED = 47,
    TAVISTRO_MESSAGE_EVENT_DEVICE_RECOVERED = 48,
    TAVISTRO_MESSAGE_EVENT_CLIENT_GAVE_UP = 49,
    TAVISTRO_MESSAGE_EVENT_ASIO_GAVE_UP = 50,
    TAVISTRO_MESSAGE_EVENT_RECOVERY_GAVE_UP = 51,
    TAVISTRO_MESSAGE_SERVER_INCOMPATIBLE = 52
};

/* One entry of the event history. */
typedef struct tavistro_engine_event {
    uint64_t sequence;     /* 1, 2, 3, ... in the order of the run's events */
    uint64_t time_ms;      /* system millisecond tick at which the event was recorded */
    uint32_t kind;         /* tavistro_event_kind */
    uint32_t subject;      /* tavistro_status_category */
    uint32_t attempt;      /* number of the attempt, from 1 */
    uint32_t max_attempts; /* 12 for start retries, 3 for device recovery */
    uint32_t error_code;   /* tavistro_error_code of the failed attempt */
    uint32_t message;      /* tavistro_message_id */
} tavistro_engine_event;

/* Peak meter of one channel. */
typedef struct tavistro_channel_meter {
    uint32_t channel;       /* channel number in the configuration, 0..31 */
    uint32_t peak_permille; /* highest peak since the previous report, 1/1000 of full scale */
} tavistro_channel_meter;

/*
 * The state record. 904 bytes, natural alignment, no padding, native (little) byte order.
 * events[0 .. event_count - 1] are valid, oldest first. A host that remembers the last sequence it
 * has read recognises new events by a higher sequence; a gap is the number of events it missed.
 */
typedef struct tavistro_engine_state {
    uint32_t version;             /* TAVISTRO_STATE_RECORD_VERSION */
    uint32_t state;               /* tavistro_state_code */
    uint32_t status_level;        /* tavistro_status_level */
    uint32_t status_category;     /* tavistro_status_category */
    uint32_t error_code;          /* tavistro_error_code of the last error; 0: no error */
    uint32_t error_detail;        /* tavistro_message_id that explains error_code */
    uint32_t status_message;      /* tavistro_message_id */
    uint32_t client_id;           /* of this run; 0 until its configuration is loaded */
    uint32_t stream_sample_rate;  /* Hz, set by the server; 0 until known */
    uint32_t stream_block_frames; /* frames per block, set by the server; 0 until known */
    uint32_t device_sample_rate;  /* Hz, actual rate of the device; 0 until known */
    uint32_t device_block_frames; /* frames per device period; 0 until known */
    uint32_t event_count;         /* valid entries of events, 0..8 */
    uint32_t event_capacity;      /* 8 */
    uint32_t input_meter_count;   /* valid entries of input_meters, 0..32 */
    uint32_t output_meter_count;  /* valid entries of output_meters, 0..32 */
    uint64_t next_event_sequence; /* sequence of the next event */
    tavistro_engine_event events[TAVISTRO_MAX_EVENTS];
    tavistro_channel_meter input_meters[TAVISTRO_MAX_METERS];
    tavistro_channel_meter output_meters[TAVISTRO_MAX_METERS];
} tavistro_engine_state;

/*
 * The layout is part of the interface: compilation fails here if a compiler lays it out
 * differently. gcc, clang and msvc provide __builtin_offsetof, which avoids stddef.h.
 */
#define TAVISTRO_ASSERT_LAYOUT(name, condition) \
    typedef char tavistro_layout_##name[(condition) ? 1 : -1]
TAVISTRO_ASSERT_LAYOUT(event_size, sizeof(tavistro_engine_event) == 40);
TAVISTRO_ASSERT_LAYOUT(meter_size, sizeof(tavistro_channel_meter) == 8);
TAVISTRO_ASSERT_LAYOUT(state_size, sizeof(tavistro_engine_state) == 904);
#if defined(__GNUC__) || defined(_MSC_VER)
#define TAVISTRO_ASSERT_OFFSET(type, field, offset) \
    TAVISTRO_ASSERT_LAYOUT(type##_##field, __builtin_offsetof(type, field) == (offset))
#else
#define TAVISTRO_ASSERT_OFFSET(type, field, offset) \
    TAVISTRO_ASSERT_LAYOUT(type##_##field, sizeof(type) != 0)
#endif
TAVISTRO_ASSERT_OFFSET(tavistro_engine_event, time_ms, 8);
TAVISTRO_ASSERT_OFFSET(tavistro_engine_event, kind, 16);
TAVISTRO_ASSERT_OFFSET(tavistro_engine_event, message, 36);
TAVISTRO_ASSERT_OFFSET(tavistro_engine_state, error_code, 16);
TAVISTRO_ASSERT_OFFSET(tavistro_engine_state, client_id, 28);
TAVISTRO_ASSERT_OFFSET(tavistro_engine_state, event_count, 48);
TAVISTRO_ASSERT_OFFSET(tavistro_engine_state, next_event_sequence, 64);
TAVISTRO_ASSERT_OFFSET(tavistro_engine_state, events, 72);
TAVISTRO_ASSERT_OFFSET(tavistro_engine_state, input_meters, 392);
TAVISTRO_ASSERT_OFFSET(tavistro_engine_state, output_meters, 648);

/* Opaque handle. */
typedef struct tavistro_engine tavistro_engine;

/*
 * Creates the engine of this process; it is idle.
 * Returns its handle, or null if an engine exists already or memory runs out.
 * One thread at a time; not real-time safe: locks, allocates.
 */
TAVISTRO_API tavistro_engine* tavistro_engine_create(void);

/*
 * Starts a run with the INI file at `path`, which is copied before the call returns.
 * The bytes of `path` are passed to the system unchanged. Windows reads them in the process's ANSI
 * code page (GetACP), which is UTF-8 only if the program's manifest or the system selects it.
 *
 * Returns 1 if the run was launched. Loading the file, finding the server and all later steps
 * happen on the engine's own threads; their progress and errors are in the state record.
 * Returns 0 if the start was refused. error_code says why: TAVISTRO_ERROR_NO_CONFIG_PATH (null or
 * empty path), TAVISTRO_ERROR_ALREADY_STARTED (the previous run was not stopped, even if it ended
 * by itself) or TAVISTRO_ERROR_WORKER_START_FAILED. A null handle returns 0 with no effect.
 * One thread at a time, does not wait; not real-time safe: locks, allocates, creates a thread.
 */
TAVISTRO_API int32_t tavistro_engine_start_from_config(tavistro_engine* engine, const char* path);

/*
 * Copies a consistent snapshot of the state record, exactly 904 bytes, into `buffer`, which needs
 * no alignment. Returns 1; returns 0 and writes nothing if either pointer is null.
 * Any thread, at any time; not real-time safe: locks a mutex while it copies.
 */
TAVISTRO_API int32_t tavistro_engine_get_state(tavistro_engine* engine, void* buffer);

/*
 * Stops the run and returns when all its threads have ended: within about 100 ms, or that long
 * after the end of a start attempt of the network client or the device that is in progress.
 * Has no effect on an idle engine or a null handle.
 * One thread at a time; not real-time safe: blocks.
 */
TAVISTRO_API void tavistro_engine_stop(tavistro_engine* engine);

/*
 * Stops the run, if any, and frees the engine; a new one can then be created. Ignores null.
 * One thread at a time, with no other call in progress; not real-time safe: blocks as a stop does.
 */
TAVISTRO_API void tavistro_engine_destroy(tavistro_engine* engine);

#ifdef __cplusplus
}
#endif

#endif
