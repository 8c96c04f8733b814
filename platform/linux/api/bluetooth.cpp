#include <cstring>
#include <string>

#include <platform/bluetooth.h>

#include "Boundary.h"

using namespace ParvanePlatform;

/** Counted: each call needs its bt_deinitialize(). Fails without a runtime only (-1). */
extern "C" int bt_initialize(void)
{
    return WithRuntime("bt_initialize", [](Runtime &runtime) {
        runtime.Bluetooth().Initialize();
        return 0;
    });
}

/** Returns -32511 when there is nothing to end, -1 without a runtime. */
extern "C" int bt_deinitialize(void)
{
    return WithRuntime("bt_deinitialize",
                       [](Runtime &runtime) { return runtime.Bluetooth().Deinitialize(); });
}

/**
 * Returns -22 for a null argument, -32511 before bt_initialize(), -32510 when the adapter is not
 * powered, -32508 when the address can neither be read nor made or the adapter does not answer, -12
 * without memory, -1 without a runtime.
 */
extern "C" int bt_adapter_get_address(char **address)
{
    const auto work = [address](Runtime &runtime) {
        if (address == nullptr) {
            return ErrorCode::kInvalidParameter;
        }
        std::string text;
        if (const int result = runtime.Bluetooth().GetAddress(text); result != 0) {
            return result;
        }
        char *copy = strdup(text.c_str());
        if (copy == nullptr) {
            return ErrorCode::kOutOfMemory;
        }
        *address = copy;
        return 0;
    };
    return WithRuntime("bt_adapter_get_address", work, BluetoothAdapter::kOperationFailed);
}
