#pragma once

#include <cstdint>

#include <platform/context_manager.h>

namespace Parvane {

/** A value of a platform reading, or `fallback` when the reading does not have it. */
int32_t ReadInt(context_data *data, const char *key, int32_t fallback);

/** A value of a platform reading, or 0.0 when the reading does not have it. */
double ReadDouble(context_data *data, const char *key);

/** When the reading was taken, in milliseconds since the epoch; -1 when the platform does not say. */
int64_t ReadTimestamp(context_data *data);

} // namespace Parvane
