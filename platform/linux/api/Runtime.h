#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Alerts.h"
#include "BluetoothAdapter.h"
#include "BusParts.h"
#include "Clock.h"
#include "ContextManager.h"
#include "ControlServer.h"
#include "Directories.h"
#include "KeyValueStore.h"
#include "LifecycleEvents.h"
#include "LinkSession.h"
#include "PowerLocks.h"
#include "PreferenceStore.h"
#include "Settings.h"

namespace ParvanePlatform {

/**
 * Everything that the C functions work on, for the time between the start of service_app_main() and
 * its end. At most one at a time; main thread only.
 */
class Runtime
{
public:
    /**
     * Claims the directories and, when no other process has, brings the parts up.
     *
     * @param settings  borrowed for the life of the runtime
     * @param events    borrowed for the life of the runtime
     * @throws StartupError when a setting, path or file cannot be used
     */
    Runtime(const Settings &settings, LifecycleEvents &events);
    ~Runtime();

    Runtime(const Runtime &) = delete;
    Runtime &operator=(const Runtime &) = delete;

    /** The runtime that lives; null when there is none, or another process has its directories. */
    static Runtime *Current();

    /** The directory that another process uses, for a message; empty, or there are no parts. */
    const std::string &TakenDirectory() const { return mTaken; }

    PreferenceStore &Preferences() { return mParts->mPreferences; }
    KeyValueStore &Keys() { return mParts->mKeys; }
    ContextManager &Context() { return mParts->mContext; }
    BluetoothAdapter &Bluetooth() { return mParts->mBluetooth; }
    PowerLocks &Power() { return mParts->mPower; }
    LinkSession &Link() { return mParts->mLink; }
    const Alerts &Monitors() const { return mParts->mAlerts; }

private:
    /** The parts, in the order in which they come up. */
    struct Parts
    {
        Parts(const Settings &settings, const Clock &clock, LifecycleEvents &events,
              SensorSources sources, std::unique_ptr<BusParts> bus);

        /** Null unless some part is made over the bus. */
        std::unique_ptr<BusParts> mBus;
        PreferenceStore mPreferences;
        KeyValueStore mKeys;
        ContextManager mContext;
        BluetoothAdapter mBluetooth;
        PowerLocks mPower;
        LinkSession mLink;
        Alerts mAlerts;
        /** Null when the settings ask for no control socket. */
        std::unique_ptr<ControlServer> mControl;
    };

    SystemClock mClock;
    std::vector<InstanceLock> mLocks;
    std::string mTaken;
    std::unique_ptr<Parts> mParts;
};

} // namespace ParvanePlatform
