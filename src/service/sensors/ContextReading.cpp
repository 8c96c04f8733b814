#include "ContextReading.h"

namespace Parvane {

// The results of the calls are not looked at: a call that fails leaves the value as it was.

int32_t ReadInt(context_data *data, const char *key, int32_t fallback)
{
    int value = fallback;
    context_context_data_get_int(data, key, &value);
    return value;
}

double ReadDouble(context_data *data, const char *key)
{
    double value = 0.0;
    context_context_data_get_double(data, key, &value);
    return value;
}

int64_t ReadTimestamp(context_data *data)
{
    int64_t milliseconds = -1;
    context_context_data_get_timestamp(data, &milliseconds);
    return milliseconds;
}

} // namespace Parvane
