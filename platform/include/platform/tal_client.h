/**
 * @file
 * Accessory link: the connection between the watch and its paired host.
 *
 * Every function returns 0 on success. Notifications arrive on the main-loop thread.
 */
#ifndef PLATFORM_TAL_CLIENT_H
#define PLATFORM_TAL_CLIENT_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** What the link calls; 12 pointers: 48 bytes where a pointer has 4. */
typedef struct
{
    /** The answer to registerServiceAgent(); result 0: registered. */
    void (*registerServiceAgentConfirm)(int result, int agentId);
    /** One message from the host. */
    void (*dataReceived)(int connectionId, int channelId, int size, const void *data);
    /** A host wants to connect. */
    void (*serviceConnectionIndication)(int agentId, int connectionId, void *peer, void *detail);
    /** The host's service has ended. */
    void (*serviceTerminated)(int connectionId);
    /** The answer to a connection that this side asked for; result 0: connected. */
    void (*serviceCreateConfirm)(int agentId, int connectionId, void *peer, int result);
    /** The answer to findPeerAgent(); status 0: found. */
    void (*peerAgent)(int agentId, void *peer, int status);
    /** These three do nothing and return their argument. */
    int (*unused7)(int value);
    int (*unused8)(int value);
    int (*unused9)(int value);
    /** Null. */
    void (*reserved[3])(void);
} tal_notifications;

/** One channel of a service; 20 bytes. */
typedef struct
{
    uint16_t id;          /* offset 0 */
    uint16_t field2;      /* offset 2: 0 */
    uint32_t field4;      /* offset 4: 1 */
    uint32_t reserved[3]; /* offset 8: 0 */
} tal_channel_descriptor;

/** A service as it is announced to hosts; 32 bytes where a pointer has 4. */
typedef struct
{
    const char *profileId;            /* offset 0 */
    const char *serviceName;          /* offset 4 */
    uint32_t field8;                  /* offset 8: 4 */
    uint8_t field12;                  /* offset 12: 1 */
    tal_channel_descriptor *channels; /* offset 16 */
    uint16_t channelCount;            /* offset 20: 1 */
    uint32_t reserved[2];             /* offset 24: 0 */
} tal_service_descriptor;

/* The layout that both sides rely on. */
static_assert(sizeof(tal_channel_descriptor) == 20, "channel descriptor");
static_assert(offsetof(tal_channel_descriptor, id) == 0, "id");
static_assert(offsetof(tal_channel_descriptor, field2) == 2, "field2");
static_assert(offsetof(tal_channel_descriptor, field4) == 4, "field4");
static_assert(offsetof(tal_channel_descriptor, reserved) == 8, "reserved");
#if UINTPTR_MAX == 0xFFFFFFFF /* a pointer has 4 bytes */
static_assert(sizeof(tal_notifications) == 48, "notifications");
static_assert(offsetof(tal_notifications, registerServiceAgentConfirm) == 0,
              "registerServiceAgentConfirm");
static_assert(offsetof(tal_notifications, dataReceived) == 4, "dataReceived");
static_assert(offsetof(tal_notifications, serviceConnectionIndication) == 8,
              "serviceConnectionIndication");
static_assert(offsetof(tal_notifications, serviceTerminated) == 12, "serviceTerminated");
static_assert(offsetof(tal_notifications, serviceCreateConfirm) == 16, "serviceCreateConfirm");
static_assert(offsetof(tal_notifications, peerAgent) == 20, "peerAgent");
static_assert(offsetof(tal_notifications, unused7) == 24, "unused7");
static_assert(offsetof(tal_notifications, unused8) == 28, "unused8");
static_assert(offsetof(tal_notifications, unused9) == 32, "unused9");
static_assert(offsetof(tal_notifications, reserved) == 36, "reserved");
static_assert(sizeof(tal_service_descriptor) == 32, "service descriptor");
static_assert(offsetof(tal_service_descriptor, profileId) == 0, "profileId");
static_assert(offsetof(tal_service_descriptor, serviceName) == 4, "serviceName");
static_assert(offsetof(tal_service_descriptor, field8) == 8, "field8");
static_assert(offsetof(tal_service_descriptor, field12) == 12, "field12");
static_assert(offsetof(tal_service_descriptor, channels) == 16, "channels");
static_assert(offsetof(tal_service_descriptor, channelCount) == 20, "channelCount");
static_assert(offsetof(tal_service_descriptor, reserved) == 24, "reserved");
#endif

/** Names who is told what happens on the link; the record is copied. */
int registerNotifications(tal_notifications notifications);

/** No notification comes once this has returned. */
int deregisterNotifications(void);

/**
 * Announces a service; confirmed later through registerServiceAgentConfirm.
 *
 * The caller keeps `service`, and what it points at, until deRegisterServiceAgent().
 */
int registerServiceAgent(tal_service_descriptor *service);
int deRegisterServiceAgent(int agentId);
int findPeerAgent(int agentId);

/** Takes the four arguments of a connection indication, unchanged. */
int acceptServiceConnection(int agentId, int connectionId, void *peer, void *detail);
int terminateServiceConnection(int connectionId);

/** Sends one message. Returns 1 invalid argument, 2 invalid service connection, 3 network failure, 4 or 5 buffer full. */
int sendData(int connectionId, int channelId, int size, const void *data);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
