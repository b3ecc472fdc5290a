/*
 * Tavistro engine: the host's side.
 *
 * A host creates the one engine of its process, starts it with the path of a configuration file,
 * polls a 904-byte state record, stops it and destroys it:
 *
 *     tavistro_engine* engine = tavistro_engine_create();
 *     if (engine && tavistro_engine_start_from_config(engine, "tavistro.ini")) {
 *         tavistro_engine_state state;
 *         while (tavistro_engine_get_state(engine, &state) && state.state != TAVISTRO_STATE_FAILED)
 *             ...wait a little, show state...
 *     }
 *     tavistro_engine_stop(engine);
 *     tavistro_engine_destroy(engine);
 *
 * Stop comes before the end: a library that is unloaded while a run is active takes the code away
 * from its running threads, and the process crashes. A process that exits without a stop ends
 * them with it; on Linux the statistics block stays behind then, /dev/shm/TavistroEngineStats_ID_v6
 * with its last values, until a run with the same client_id has used it and closed.
 *
 * Threads: tavistro_engine_get_state may be called from any thread at any time between create and
 * destroy. The other functions are called from one thread at a time. None may be called from a
 * real-time thread: all take locks.
 *
 * The engine keeps no text. Every number below has a name here; what a host says to its user for
 * it is the host's own choice.
 *
 * Plain C99; usable from C++.
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

/* Value of tavistro_engine_state.version that this header describes. */
#define TAVISTRO_STATE_RECORD_VERSION 5u
#define TAVISTRO_MAX_EVENTS 8u
#define TAVISTRO_MAX_METERS 32u

/* tavistro_engine_state.state */
enum tavistro_state_code {
    TAVISTRO_STATE_IDLE = 0,       /* created, never started */
    TAVISTRO_STATE_STARTING = 1,   /* loading the settings, starting the network client */
    TAVISTRO_STATE_CONNECTED = 2,  /* waiting, without limit, for the server's stream format */
    TAVISTRO_STATE_RUNNING = 3,    /* audio is played */
    TAVISTRO_STATE_RESTARTING = 4, /* device retry, stream-format change or device recovery */
    TAVISTRO_STATE_STOPPING = 5,
    TAVISTRO_STATE_STOPPED = 6, /* ended by a stop request */
    TAVISTRO_STATE_FAILED = 7   /* ended by an error; error_code says which */
};

/* tavistro_engine_state.status_level */
enum tavistro_status_level {
    TAVISTRO_LEVEL_NONE = 0,
    TAVISTRO_LEVEL_HEALTHY = 1,
    TAVISTRO_LEVEL_WARNING = 2,
    TAVISTRO_LEVEL_PENDING = 3, /* something is in progress or awaited */
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

/* tavistro_engine_state.error_code and tavistro_engine_event.error_code; 8 is not used */
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

/* status_message, error_detail and tavistro_engine_event.message: one numbering */
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
    TAVISTRO_MESSAGE_SYNC_LOST = 28, /* no notice from the server for more than 3000 ms */
    TAVISTRO_MESSAGE_DEVICE_RESET_REQUESTED = 29,
    TAVISTRO_MESSAGE_SAMPLE_RATE_DIFFERS = 30,
    TAVISTRO_MESSAGE_BLOCK_SIZE_DIFFERS = 31, /* or blocks of a foreign format were rejected */
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
    uint64_t sequence;     /* 1, 2, 3, ... in order of recording within one run */
    uint64_t time_ms;      /* millisecond tick of the system when it was recorded */
    uint32_t kind;         /* tavistro_event_kind */
    uint32_t subject;      /* tavistro_status_category */
    uint32_t attempt;      /* counted from 1 */
    uint32_t max_attempts; /* 12 for start retries, 3 for device recovery */
    uint32_t error_code;   /* tavistro_error_code of the failed attempt */
    uint32_t message;      /* tavistro_message_id */
} tavistro_engine_event;

/* Peak meter of one channel. */
typedef struct tavistro_channel_meter {
    uint32_t channel;       /* channel number as written in the configuration, 0..31 */
    uint32_t peak_permille; /* highest peak since the last report, thousandths of full scale */
} tavistro_channel_meter;

/*
 * The state record. 904 bytes, natural alignment, no padding, native (little) byte order.
 * Valid events stand oldest first at events[0 .. event_count - 1]; a host that remembers the last
 * sequence it saw knows which are new, and a gap in sequence tells how many it missed.
 */
typedef struct tavistro_engine_state {
    uint32_t version;             /* TAVISTRO_STATE_RECORD_VERSION */
    uint32_t state;               /* tavistro_state_code */
    uint32_t status_level;        /* tavistro_status_level */
    uint32_t status_category;     /* tavistro_status_category */
    uint32_t error_code;          /* tavistro_error_code of the last error, 0 when none */
    uint32_t error_detail;        /* tavistro_message_id that goes with error_code */
    uint32_t status_message;      /* tavistro_message_id */
    uint32_t client_id;           /* of the current run; 0 until its configuration is loaded */
    uint32_t stream_sample_rate;  /* Hz, from the server; 0 until known */
    uint32_t stream_block_frames; /* frames per block, from the server; 0 until known */
    uint32_t device_sample_rate;  /* Hz, the rate that the device runs at; 0 until known */
    uint32_t device_block_frames; /* frames per device period; 0 until known */
    uint32_t event_count;         /* valid entries of events, 0..8 */
    uint32_t event_capacity;      /* 8 */
    uint32_t input_meter_count;   /* valid entries of input_meters, 0..32 */
    uint32_t output_meter_count;  /* valid entries of output_meters, 0..32 */
    uint64_t next_event_sequence; /* what the next event will carry */
    tavistro_engine_event events[TAVISTRO_MAX_EVENTS];
    tavistro_channel_meter input_meters[TAVISTRO_MAX_METERS];
    tavistro_channel_meter output_meters[TAVISTRO_MAX_METERS];
} tavistro_engine_state;

/*
 * The layout is part of the interface: a compiler that lays it out otherwise stops here.
 * __builtin_offsetof is what stddef.h would bring; gcc, clang and msvc have it.
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

typedef struct tavistro_engine tavistro_engine;

/*
 * Creates the engine. At most one exists per process.
 * Returns its handle, or null when one exists already or memory ran out.
 */
TAVISTRO_API tavistro_engine* tavistro_engine_create(void);

/*
 * Starts a run with the settings of an INI file. The path is copied before the call returns.
 * It goes to the system's file opening byte by byte; on Windows that takes it as text in the ANSI
 * code page of the process (GetACP), which is UTF-8 only where the program's manifest or the system
 * says so.
 *
 * Returns 1 when the run was launched: loading the file, finding the server and everything after
 * happen on the engine's own threads and show in the state record. Returns 0 when refused, with
 * the reason in error_code: no path, a run that was not stopped yet (also one that ended by
 * itself), or no thread to be had; a null handle returns 0 with no effect.
 */
TAVISTRO_API int32_t tavistro_engine_start_from_config(tavistro_engine* engine, const char* path);

/*
 * Copies a consistent snapshot of the state record, exactly 904 bytes, to the caller's buffer.
 * Returns 1, or 0 (nothing written) when either pointer is null. Any thread, any time.
 */
TAVISTRO_API int32_t tavistro_engine_get_state(tavistro_engine* engine, void* buffer);

/*
 * Ends the run and returns when all its threads have ended: within about 100 ms, after a start
 * attempt of the network client or of the device that is in progress. Harmless when nothing runs.
 */
TAVISTRO_API void tavistro_engine_stop(tavistro_engine* engine);

/* Stops and frees the engine; afterwards a new one can be created. Null is ignored. */
TAVISTRO_API void tavistro_engine_destroy(tavistro_engine* engine);

#ifdef __cplusplus
}
#endif

#endif
