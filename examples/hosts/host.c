/* usage: host CONFIG: plays until something is heard. Reads the record as bytes, as a host
 * whose language has no such headers would. Status 0 when all is well, else the number of the step.
 */
#define _POSIX_C_SOURCE 199309L /* nanosleep */
#include <stdint.h>
#include <string.h>
#include <tavistro/engine.h>
#include <tavistro/stats_block.h>
#include <time.h>

static unsigned char record[904 + 1];

static uint32_t at(size_t offset) {
    uint32_t value;
    memcpy(&value, record + offset, sizeof value);
    return value;
}

static int heard(tavistro_engine* engine) {
    const struct timespec pause = {0, 50000000};
    int waits;
    for (waits = 0; waits < 600; ++waits) {
        tavistro_engine_get_state(engine, record);
        if (at(4) == 7) return 0;
        if (at(4) == 3 && at(648 + 4) > 0) return 1;
        nanosleep(&pause, NULL);
    }
    return 0;
}

int main(int argc, char** argv) {
    tavistro_engine* const engine = tavistro_engine_create();
    if (argc != 2 || engine == NULL) return 1;
    record[904] = 0xEE;
    if (tavistro_engine_get_state(engine, record) != 1 || record[904] != 0xEE) return 2;
    if (at(0) != 5 || at(52) != 8 || at(64) != 1 || at(68) != 0) return 3;
    if (tavistro_engine_start_from_config(engine, argv[1]) != 1) return 4;
    if (!heard(engine) || at(32) != 48000 || at(60) != 2) return 5;
    tavistro_engine_stop(engine);
    tavistro_engine_get_state(engine, record);
    tavistro_engine_destroy(engine);
    return at(4) == 6 ? 0 : 6;
}
