/**
 * @file
 * Bluetooth adapter. Every function returns 0 on success.
 */
#ifndef PLATFORM_BLUETOOTH_H
#define PLATFORM_BLUETOOTH_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

int bt_initialize(void);
int bt_deinitialize(void);

/** "AA:BB:CC:DD:EE:FF", malloc'ed; the caller frees it. Untouched on failure. */
int bt_adapter_get_address(char **address);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
