#include "RuntimeLog.h"

#include <cstdarg>
#include <unistd.h>

#include "dlog/LogWriter.h"

namespace ParvanePlatform {

namespace {

constexpr char kTag[] = "platform";

} // namespace

void LogInfo(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    LogWriter(STDERR_FILENO).Write(LogPriority::Info, kTag, format, arguments);
    va_end(arguments);
}

void LogWarning(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    LogWriter(STDERR_FILENO).Write(LogPriority::Warning, kTag, format, arguments);
    va_end(arguments);
}

void LogError(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    LogWriter(STDERR_FILENO).Write(LogPriority::Error, kTag, format, arguments);
    va_end(arguments);
}

} // namespace ParvanePlatform
