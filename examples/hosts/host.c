/* A host in C99: runs the engine until Ctrl-C and prints what it does.
 *
 *     cc -std=c99 -o host host.c $(pkg-config --cflags --libs tavistro)
 *     ./host tavistro.ini
 *
 * A run that fails is stopped and started again after a pause, for as long as it takes.
 */
#define _POSIX_C_SOURCE 199309L /* nanosleep; Windows has Sleep in windows.h */
#include <signal.h>
#include <stdio.h>
#include <tavistro/engine.h>
#include <time.h>

enum { POLL_MS = 100, POLLS_PER_METERS = 10, POLLS_PER_RESTART = 50 };

static const char* const state_names[] = {"Idle",       "Starting", "Connected", "Running",
                                          "Restarting", "Stopping", "Stopped",   "Failed"};
static volatile sig_atomic_t stop_requested;

static void request_stop(int signal_number) {
    (void)signal_number;
    stop_requested = 1;
}

static void wait_for_next_poll(void) {
    const struct timespec pause = {0, POLL_MS * 1000000L};
    nanosleep(&pause, NULL);
}

/* The record holds the last 8 events: a sequence number that is skipped is an event missed. */
static void show_events(const tavistro_engine_state* record, uint64_t* next_sequence) {
    for (uint32_t i = 0; i < record->event_count; ++i) {
        const tavistro_engine_event* const event = &record->events[i];
        if (event->sequence < *next_sequence) continue;
        if (event->sequence > *next_sequence)
            printf("missed %llu events\n", (unsigned long long)(event->sequence - *next_sequence));
        *next_sequence = event->sequence + 1;
        printf("event %llu: kind %u, attempt %u of %u, message %u, error %u\n",
               (unsigned long long)event->sequence, event->kind, event->attempt,
               event->max_attempts, event->message, event->error_code);
    }
}

static void show_meters(const char* name, const tavistro_channel_meter* meters, uint32_t count) {
    printf("%s peaks", name);
    for (uint32_t i = 0; i < count; ++i)
        printf(" %u:%.3f", meters[i].channel, meters[i].peak_permille / 1000.0);
    printf("\n");
}

/* Runs until Ctrl-C or a failure. */
static void run(tavistro_engine* engine, const char* config_path) {
    tavistro_engine_state record = {0};
    uint32_t shown_state = TAVISTRO_STATE_IDLE;
    uint64_t next_sequence = 1; /* each run counts its events from 1 */
    int is_started = tavistro_engine_start_from_config(engine, config_path);
    for (unsigned polls = 1;; ++polls) {
        if (!is_started || stop_requested) tavistro_engine_stop(engine);
        tavistro_engine_get_state(engine, &record);
        if (record.state != shown_state)
            printf("state %s, message %u, error %u; stream %u Hz, %u frames\n",
                   state_names[record.state], record.status_message, record.error_code,
                   record.stream_sample_rate, record.stream_block_frames);
        shown_state = record.state;
        show_events(&record, &next_sequence);
        if (record.state == TAVISTRO_STATE_RUNNING && polls % POLLS_PER_METERS == 0) {
            show_meters("output", record.output_meters, record.output_meter_count);
            show_meters("input", record.input_meters, record.input_meter_count);
        }
        if (!is_started || stop_requested || record.state == TAVISTRO_STATE_FAILED) break;
        wait_for_next_poll();
    }
    tavistro_engine_stop(engine); /* a run that failed needs it too before the next start */
}

int main(int argc, char** argv) {
    tavistro_engine_state record;
    tavistro_engine* const engine = tavistro_engine_create();
    if (argc != 2 || engine == NULL || !tavistro_engine_get_state(engine, &record) ||
        record.version != TAVISTRO_STATE_RECORD_VERSION) {
        fprintf(stderr, "usage: host CONFIG, with engine version %u\n",
                TAVISTRO_STATE_RECORD_VERSION);
        return 1;
    }
    setvbuf(stdout, NULL, _IOLBF, BUFSIZ);
    signal(SIGINT, request_stop);
    signal(SIGTERM, request_stop);
    while (!stop_requested) {
        run(engine, argv[1]);
        if (stop_requested) break;
        printf("the run failed; starting again in %d s\n", POLLS_PER_RESTART * POLL_MS / 1000);
        for (int i = 0; i < POLLS_PER_RESTART && !stop_requested; ++i)
            wait_for_next_poll();
    }
    tavistro_engine_destroy(engine);
    return 0;
}
