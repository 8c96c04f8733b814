#pragma once

#include <gtest/gtest.h>

#include "ConnectionManager.h"
#include "ScriptedPlatform.h"

namespace Parvane {

/** The key that tells whether the device has a link. */
constexpr const char *kLinkStatusKey = "memory/private/tal/conn_status";

/**
 * Leads the connection manager, which lives as long as the process, back to where it began through
 * what it does for everybody: not registered, no agent, no connection, no retry, nobody listening.
 *
 * The link-status key is 0 then, and the platform has no evidence of it. A manager that is yet to
 * be made is made.
 */
inline ConnectionManager &LeadLinkBack(ScriptedPlatform &platform)
{
    const bool isNew = ScriptedPlatform::KeyWatches().empty();
    ConnectionManager &manager = *ConnectionManager::GetInstance();
    manager.SetListener(nullptr);
    platform.ChangeKey(kLinkStatusKey, 0); // ends what has been left
    if (!isNew) {
        platform.ChangeKey(kLinkStatusKey, 1);
        platform.ConfirmRegistration(0, 1);
        platform.ChangeKey(kLinkStatusKey, 0);
    }
    platform.Forget();
    return manager;
}

/** The base of the fixtures whose subject meets the accessory link. */
class LinkTest : public testing::Test
{
public:
    ~LinkTest() override { mManager.SetListener(nullptr); }

protected:
    static constexpr const char *kStatusKey = kLinkStatusKey;
    static constexpr int kAgent = 5;
    static constexpr int kConnection = 7;

    /** The key says that the link is there; the service registers and is confirmed. */
    void LinkUp()
    {
        mPlatform.ChangeKey(kStatusKey, 1);
        mPlatform.ConfirmRegistration(0, kAgent);
    }

    /** The host connects. */
    void HostConnects() { mPlatform.IndicateConnection(kAgent, kConnection); }

    /** The key says that the link is gone. */
    void LinkDown() { mPlatform.ChangeKey(kStatusKey, 0); }

    /** Registered and connected, with no evidence of how it came to be. */
    void ConnectHost()
    {
        LinkUp();
        HostConnects();
        mPlatform.Forget();
    }

    ScriptedPlatform mPlatform;
    ConnectionManager &mManager = LeadLinkBack(mPlatform);
};

} // namespace Parvane
