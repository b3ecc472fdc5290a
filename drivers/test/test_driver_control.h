/*
 * The test driver's remote control: a test that has loaded the same module asks it for
 * tavistro_test_driver_control() and tells the driver how to behave. Options, commands and counters
 * are named in drivers/test/driver_control.{h,cpp}. Plain C; any thread.
 */
#ifndef TAVISTRO_TEST_DRIVER_CONTROL_H
#define TAVISTRO_TEST_DRIVER_CONTROL_H

#include <stdint.h>

typedef struct tavistro_test_driver_controls {
    /* Every option as at load, no fault, every counter but that of living objects 0. */
    void (*restore)(void);
    /* 1, or 0 with nothing changed for an unknown option or a value that cannot be read. */
    int32_t (*set)(const char* option, const char* value);
    /* 1, or 0 for an unknown command. */
    int32_t (*fire)(const char* command);
    /* -1 for an unknown counter. */
    int64_t (*count)(const char* counter);
} tavistro_test_driver_controls;

#define TAVISTRO_TEST_DRIVER_CONTROL_NAME "tavistro_test_driver_control"
typedef const tavistro_test_driver_controls* (*tavistro_test_driver_control_function)(void);

#endif
