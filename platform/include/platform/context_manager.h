/**
 * @file
 * Context manager: readings of the watch's sensors.
 *
 * Items: 1 motion gesture, 2 pedometer, 7 heart rate, 23 activity. Every function that returns int
 * returns 0 on success.
 */
#ifndef PLATFORM_CONTEXT_MANAGER_H
#define PLATFORM_CONTEXT_MANAGER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** One reading: one malloc'ed block, which the callback that receives it releases with free. */
typedef struct context_data context_data;

/** What narrows a subscription or a query: one malloc'ed block; whoever made it frees it. */
typedef struct context_option ContextManagerOptionType;

/** Receives one reading; `request_id` tells which subscription or query it answers. */
typedef void (*context_changed_cb)(int error, int item, context_data *data, void *user_data,
                                   int request_id);

/**
 * Subscribes to an item.
 *
 * The callback may run inside this call, but only after `*request_id` has been written. `option`
 * may be null and is not used after the call.
 */
int context_set_changed_callback(int item, ContextManagerOptionType *option,
                                 context_changed_cb callback, void *user_data, int *request_id);

/** Ends an item's subscription; no callback comes for the item once this has returned. */
int context_unset_changed_callback(int item);

/** Asks for an item's current value; the answer comes later, from the main loop. */
int context_get_context(int item, ContextManagerOptionType *option, context_changed_cb callback,
                        void *user_data, int *request_id);

/** Makes an empty option; null when memory has run out. */
ContextManagerOptionType *context_option_new(void);

/** Adds a value to an option; may move `*option`. */
int context_option_add_value_int(ContextManagerOptionType **option, const char *key, int value);

/** Adds a value to an option; may move `*option`. */
int context_option_add_value_double(ContextManagerOptionType **option, const char *key,
                                    double value);

/** Reads a value of a reading; `*value` is untouched on failure. */
int context_context_data_get_int(context_data *data, const char *key, int *value);

/** Reads a value of a reading; `*value` is untouched on failure. */
int context_context_data_get_double(context_data *data, const char *key, double *value);

/** Reads when a reading was taken, in milliseconds since the epoch; untouched on failure. */
int context_context_data_get_timestamp(context_data *data, int64_t *milliseconds);

extern const char *const CONTEXT_HRM_SPO2;
extern const char *const CONTEXT_HRM_HEART_RATE;
extern const char *const CONTEXT_HRM_PEAK_TO_PEAK;
extern const char *const CONTEXT_MOTION_ACTION;
extern const char *const CONTEXT_ACTIVITY_STATUS;
extern const char *const CONTEXT_ACTIVITY_ACCURACY;
extern const char *const CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER;
extern const char *const CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT;
extern const char *const CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE;
extern const char *const CONTEXT_PEDOMETER_CUMULATIVE_CALORIE;
extern const char *const CONTEXT_PEDOMETER_CUMULATIVE_WALK_STEP_COUNT;
extern const char *const CONTEXT_PEDOMETER_CUMULATIVE_RUN_STEP_COUNT;
extern const char *const CONTEXT_PEDOMETER_SPEED;
extern const char *const CONTEXT_PEDOMETER_GENDER;
extern const char *const CONTEXT_PEDOMETER_HEIGHT;
extern const char *const CONTEXT_PEDOMETER_WEIGHT;

/** Values of CONTEXT_PEDOMETER_GENDER. */
enum { CONTEXT_PEDOMETER_GENDER_MALE = 1, CONTEXT_PEDOMETER_GENDER_FEMALE = 2 };

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
