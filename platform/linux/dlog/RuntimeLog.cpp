#include "RuntimeLog.h"

#include <cstdarg>

#include "LogPlace.h"
#include "LogWriter.h"

namespace ParvanePlatform {

namespace {

constexpr char kTag[] = "platform";

} // namespace

void WriteRuntimeLog(LogPriority priority, const char *file, int line, const char *function,
                     const char *format, ...)
{
    const LogPlace place = {file, function, line};
    va_list arguments;
    va_start(arguments, format);
    StandardErrorLog().Write(priority, kTag, &place, format, arguments);
    va_end(arguments);
}

} // namespace ParvanePlatform
