/**
 * @file
 * Platform log.
 */
#ifndef PLATFORM_DLOG_H
#define PLATFORM_DLOG_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * Writes one line to a log, formatted as printf does.
 *
 * `log_id` 0 is the main log. Priorities: 4 info, 5 warning, 6 error.
 */
int __dlog_print(int log_id, int priority, const char *tag, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
