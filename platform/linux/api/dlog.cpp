#include <cstdarg>

#include <platform/dlog.h>

#include "ErrorCode.h"
#include "LogWriter.h"

using namespace ParvanePlatform;

/**
 * Writes to standard error, or natively to the journal when standard error is connected to it,
 * whatever the log id; works without the runtime, at any time.
 *
 * Returns the number of bytes written, 0 for a line that is left out by level or tag, -22 without a format, or the negated error of the write.
 */
extern "C" int __dlog_print(int /*log_id*/, int priority, const char *tag, const char *format, ...)
{
    if (format == nullptr) {
        return ErrorCode::kInvalidParameter;
    }
    va_list arguments;
    va_start(arguments, format);
    const int result = StandardErrorLog().Write(
        static_cast<LogPriority>(priority), tag != nullptr ? tag : "-", nullptr, format, arguments);
    va_end(arguments);
    return result;
}
