/**
 * @file
 * Key-value store of the device, with change notification.
 */
#ifndef PLATFORM_VCONF_H
#define PLATFORM_VCONF_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** A changed key. Opaque; the service reads the key again instead. */
typedef struct vconf_node vconf_node;

/** Called when a watched key has changed. */
typedef void (*vconf_changed_cb)(vconf_node *node, void *user_data);

/** Reads a key; returns 0 on success, and leaves `*value` untouched on failure. */
int vconf_get_int(const char *key, int *value);

/** Watches a key for the life of the process; returns 0 on success. */
int vconf_notify_key_changed(const char *key, vconf_changed_cb callback, void *user_data);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
