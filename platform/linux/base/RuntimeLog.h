#pragma once

namespace ParvanePlatform {

/**
 * The runtime's own log lines, under the tag "platform". printf-like; one line each, without its
 * end. They go where __dlog_print() writes and fail as silently as it does.
 */
void LogInfo(const char *format, ...) __attribute__((format(printf, 1, 2)));
void LogWarning(const char *format, ...) __attribute__((format(printf, 1, 2)));
void LogError(const char *format, ...) __attribute__((format(printf, 1, 2)));

} // namespace ParvanePlatform
