/**
 * @file
 * Service framework: the life of the process and its main loop.
 *
 * Everything is called, and calls back, on the main-loop thread.
 */
#ifndef PLATFORM_SERVICE_APP_H
#define PLATFORM_SERVICE_APP_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** A launch request. Opaque; the service never looks inside. */
typedef struct app_control *app_control_h;

/** What the framework calls during the life of a service, in this order of fields. */
typedef struct
{
    /** Called once, before the loop runs; false ends the application. */
    bool (*create)(void *user_data);
    /** Called once, after the loop has ended. */
    void (*terminate)(void *user_data);
    /** Called for each launch request. */
    void (*app_control)(app_control_h request, void *user_data);
    /** Called when the system runs short of memory. */
    void (*low_memory)(void *user_data);
    /** Called when the battery runs low. */
    void (*low_battery)(void *user_data);
} service_app_callbacks;

/**
 * Runs the main loop until service_app_exit() or app_efl_exit().
 *
 * `callbacks` is read during the call only; `user_data` goes to every callback.
 *
 * Returns 0, or -22 invalid parameter, -12 out of memory, -1 invalid context, -2 no such file,
 * -114 already running.
 */
int service_app_main(int argc, char **argv, service_app_callbacks *callbacks, void *user_data);

/** Ends the main loop; the terminate callback is still called. */
void service_app_exit(void);

/** The same as service_app_exit(), callable from any point. */
void app_efl_exit(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
