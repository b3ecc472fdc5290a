/*
 * Lets a test control the test driver: the test loads the same module and calls its function
 * tavistro_test_driver_control(). drivers/test/driver_control.{h,cpp} list the options, commands
 * and counters. Plain C; thread-safe.
 */
#ifndef TAVISTRO_TEST_DRIVER_CONTROL_H
#define TAVISTRO_TEST_DRIVER_CONTROL_H

#include <stdint.h>

typedef struct tavistro_test_driver_controls {
    /* Resets the options, faults and counters, except the number of living objects. */
    void (*restore)(void);
    /* 1; 0 and no change for an unknown option or an invalid value. */
    int32_t (*set)(const char* option, const char* value);
    /* 1; 0 for an unknown command. */
    int32_t (*fire)(const char* command);
    /* -1 for an unknown counter. */
    int64_t (*count)(const char* counter);
} tavistro_test_driver_controls;

#define TAVISTRO_TEST_DRIVER_CONTROL_NAME "tavistro_test_driver_control"
typedef const tavistro_test_driver_controls* (*tavistro_test_driver_control_function)(void);

#endif
