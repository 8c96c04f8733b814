#include <platform/tal_client.h>

#include "Boundary.h"

using namespace ParvanePlatform;

// What each function returns is said in LinkSession.h. Besides: -12 without memory, -1 without a
// runtime, except sendData(), where the service knows small positive codes only.

/** Never fails while there is a runtime. */
extern "C" int registerNotifications(tal_notifications notifications)
{
    return WithRuntime("registerNotifications", [&notifications](Runtime &runtime) {
        runtime.Link().RegisterNotifications(notifications);
        return 0;
    });
}

/** Never fails while there is a runtime. */
extern "C" int deregisterNotifications(void)
{
    return WithRuntime("deregisterNotifications", [](Runtime &runtime) {
        runtime.Link().DeregisterNotifications();
        return 0;
    });
}

extern "C" int registerServiceAgent(tal_service_descriptor *service)
{
    return WithRuntime("registerServiceAgent", [service](Runtime &runtime) {
        return runtime.Link().RegisterAgent(service);
    });
}

extern "C" int deRegisterServiceAgent(int agentId)
{
    return WithRuntime("deRegisterServiceAgent", [agentId](Runtime &runtime) {
        return runtime.Link().DeregisterAgent(agentId);
    });
}

/** The answer is peerAgent() with status 0 when a host is connected, 3 when none is. */
extern "C" int findPeerAgent(int agentId)
{
    return WithRuntime("findPeerAgent",
                       [agentId](Runtime &runtime) { return runtime.Link().FindPeer(agentId); });
}

/** Only from inside the connection's indication; the two pointers are not looked at. */
extern "C" int acceptServiceConnection(int agentId, int connectionId, void * /*peer*/,
                                       void * /*detail*/)
{
    return WithRuntime("acceptServiceConnection", [agentId, connectionId](Runtime &runtime) {
        return runtime.Link().Accept(agentId, connectionId);
    });
}

extern "C" int terminateServiceConnection(int connectionId)
{
    return WithRuntime("terminateServiceConnection", [connectionId](Runtime &runtime) {
        return runtime.Link().Terminate(connectionId);
    });
}

/**
 * What a host has seen is durable: what this turn of the main loop has written is on the disk before
 * the message goes out. When it cannot get there the message stays here, and the result is 3.
 *
 * Returns 2 when there is no runtime: there is no connection then.
 */
extern "C" int sendData(int connectionId, int channelId, int size, const void *data)
{
    if (Runtime::Current() == nullptr) {
        return LinkSession::kInvalidConnection;
    }
    const auto work = [connectionId, channelId, size, data](Runtime &runtime) {
        if (!runtime.Preferences().SecureTurn()) {
            return LinkSession::kNetworkFailure;
        }
        return runtime.Link().Send(connectionId, channelId, size, data);
    };
    return WithRuntime("sendData", work, LinkSession::kNetworkFailure);
}
