#include <platform/power.h>

#include "Boundary.h"

using namespace ParvanePlatform;

/** Returns -22 unless both values are above 0, -12 without memory, -1 without a runtime. */
extern "C" int power_lock_state(int state, int timeout_ms)
{
    return WithRuntime("power_lock_state", [state, timeout_ms](Runtime &runtime) {
        return runtime.Power().Lock(state, timeout_ms);
    });
}
