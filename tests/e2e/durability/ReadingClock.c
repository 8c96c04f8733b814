/*
 * A clock that tells which row of the recording a reading comes from: at the row that counts n steps
 * it is READING_CLOCK_START + 1 + n. Preloaded into the service, so that each total which that sends
 * or stores has a time of its own, known beforehand.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <platform/context_manager.h>

static time_t gSteps = 0;

int context_context_data_get_double(context_data *data, const char *key, double *value)
{
    int (*real)(context_data *, const char *, double *) = NULL;
    void *const found = dlsym(RTLD_NEXT, "context_context_data_get_double");
    memcpy(&real, &found, sizeof real);
    const int result = real(data, key, value);
    if (result == 0 && strcmp(key, CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT) == 0) {
        gSteps = (time_t)*value;
    }
    return result;
}

time_t time(time_t *result)
{
    const char *const start = getenv("READING_CLOCK_START");
    const time_t now = (start == NULL ? 0 : (time_t)strtol(start, NULL, 10)) + 1 + gSteps;
    if (result != NULL) {
        *result = now;
    }
    return now;
}
