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
        std::string text;
        const int result = runtime.Bluetooth().GetAddress(text);
        return result != 0 ? result : GiveText(text, address);
    };
    return WithRuntime("bt_adapter_get_address", address != nullptr, work,
                       BluetoothAdapter::kOperationFailed);
}
