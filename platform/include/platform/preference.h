/**
 * @file
 * Application preferences: small typed values that outlive the process.
 *
 * Every function returns 0 on success, -126 when there is no such key, and any other non-zero value
 * for a failure. An output argument is untouched when the call fails.
 */
#ifndef PLATFORM_PREFERENCE_H
#define PLATFORM_PREFERENCE_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

int preference_get_boolean(const char *key, bool *value);
int preference_set_boolean(const char *key, bool value);
int preference_get_int(const char *key, int *value);
int preference_set_int(const char *key, int value);

/** `*value` is malloc'ed; the caller frees it. */
int preference_get_string(const char *key, char **value);
int preference_set_string(const char *key, const char *value);
int preference_is_existing(const char *key, bool *existing);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
