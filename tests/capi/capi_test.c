/* The public C interface, used by a host that makes errors. Prints failed checks; exits with 0 if
 * all pass. */
#include <stdio.h>
#include <string.h>

#include "tavistro/engine.h"
#include "tavistro/stats_block.h"

static int failures = 0;

#define CHECK(condition) \
    if (!(condition)) failures += printf("%s:%d: failed: %s\n", __FILE__, __LINE__, #condition)

static tavistro_engine_state state_of(tavistro_engine* engine) {
    tavistro_engine_state state;
    CHECK(tavistro_engine_get_state(engine, &state) == 1);
    return state;
}

static void check_fresh(tavistro_engine* engine) {
    const tavistro_engine_state expected = {
        .version = 5, .event_capacity = 8, .next_event_sequence = 1};
    unsigned char buffer[905];
    memset(buffer, 0xEE, sizeof buffer);
    CHECK(tavistro_engine_get_state(NULL, buffer) == 0 && buffer[0] == 0xEE);
    CHECK(tavistro_engine_get_state(engine, NULL) == 0);
    CHECK(tavistro_engine_get_state(engine, buffer) == 1);
    CHECK(memcmp(buffer, &expected, 904) == 0 && buffer[904] == 0xEE);
}

static void check_refusals(tavistro_engine* engine) {
    tavistro_engine_state state;
    CHECK(tavistro_engine_start_from_config(NULL, "a.ini") == 0);
    CHECK(tavistro_engine_start_from_config(engine, NULL) == 0);
    CHECK(tavistro_engine_start_from_config(engine, "") == 0);
    state = state_of(engine);
    CHECK(state.state == TAVISTRO_STATE_IDLE && state.error_code == TAVISTRO_ERROR_NO_CONFIG_PATH);
    CHECK(state.error_detail == 1 && state.status_level == 4 && state.status_message == 1);

    /* A run that has ended by itself must be stopped before the next start. */
    CHECK(tavistro_engine_start_from_config(engine, "no/such/file.ini") == 1);
    while (state_of(engine).state != TAVISTRO_STATE_FAILED)
        continue;
    CHECK(tavistro_engine_start_from_config(engine, "no/such/file.ini") == 0);
    CHECK(state_of(engine).error_code == TAVISTRO_ERROR_ALREADY_STARTED);
}

int main(void) {
    tavistro_engine* engine = tavistro_engine_create();
    CHECK(engine != NULL && tavistro_engine_create() == NULL);
    tavistro_engine_stop(NULL);
    tavistro_engine_destroy(NULL);
    tavistro_engine_stop(engine); /* never started */
    check_fresh(engine);
    check_refusals(engine);
    tavistro_engine_destroy(engine); /* never stopped */

    engine = tavistro_engine_create();
    check_fresh(engine);
    tavistro_engine_destroy(engine);
    return failures != 0;
}
