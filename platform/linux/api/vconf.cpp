#include <platform/vconf.h>

#include "Boundary.h"

using namespace ParvanePlatform;

/**
 * Returns -22 for a null argument or a bad key, -2 when there is no such key, -74 when it holds no
 * int, -5 when it cannot be read, -12 without memory, -1 without a runtime.
 */
extern "C" int vconf_get_int(const char *key, int *value)
{
    const auto work = [key, value](Runtime &runtime) { return runtime.Keys().GetInt(key, *value); };
    return WithRuntime("vconf_get_int", key != nullptr && value != nullptr, work);
}

/**
 * The callback's node is never null and is valid during the call only. The same callback may be
 * named more than once and is then called as often.
 *
 * Returns -22 for a null key or callback or a bad key, -12 without memory, -1 without a runtime.
 */
extern "C" int vconf_notify_key_changed(const char *key, vconf_changed_cb callback, void *user_data)
{
    const auto work = [key, callback, user_data](Runtime &runtime) {
        return runtime.Keys().Watch(key, callback, user_data);
    };
    return WithRuntime("vconf_notify_key_changed", key != nullptr && callback != nullptr, work);
}
