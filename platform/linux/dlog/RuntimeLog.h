#pragma once

#include "LogPriority.h"

namespace ParvanePlatform {

/**
 * Writes one of the runtime's own log lines, under the tag "platform", with the place in the source
 * that the journal shows. Called through the macros below.
 */
void WriteRuntimeLog(LogPriority priority, const char *file, int line, const char *function,
                     const char *format, ...) __attribute__((format(printf, 5, 6)));

} // namespace ParvanePlatform

/**
 * The runtime's own log lines. printf-like; one line each, without its end. They go where
 * __dlog_print() writes and fail as silently as it does.
 *
 * Macros for the sake of the place of the call. In a lambda the function's name is "operator()".
 */
#define LogInfo(...) PARVANE_RUNTIME_LOG(Info, __VA_ARGS__)
#define LogWarning(...) PARVANE_RUNTIME_LOG(Warning, __VA_ARGS__)
#define LogError(...) PARVANE_RUNTIME_LOG(Error, __VA_ARGS__)

#define PARVANE_RUNTIME_LOG(priority, ...)                                                         \
    ::ParvanePlatform::WriteRuntimeLog(::ParvanePlatform::LogPriority::priority, __FILE__,         \
                                       __LINE__, __func__, __VA_ARGS__)
