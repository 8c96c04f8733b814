/**
 * @file
 * Power management.
 */
#ifndef PLATFORM_POWER_H
#define PLATFORM_POWER_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** Keeps the device in a power state; the lock ends by itself after `timeout_ms`. Returns 0 on success. */
int power_lock_state(int state, int timeout_ms);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
