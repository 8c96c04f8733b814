#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <utility>

#include "BluezObjects.h"
#include "BusScope.h"
#include "RetryTimer.h"
#include "Settings.h"

namespace ParvanePlatform {

/** Hears what becomes of the way to a strap. */
class StrapObserver
{
public:
    virtual ~StrapObserver() = default;

    /** One value of the strap's heart-rate measurement, unread; may end the session. */
    virtual void OnValue(std::span<const std::uint8_t> value) = 0;

    /** The strap that sent values sends none any more. */
    virtual void OnStrapLost() = 0;

    enum class Severity { Ordinary, Trouble };

    /** How things stand, in words; said again as often as it is found so. */
    virtual void OnState(Severity severity, const std::string &state) = 0;
};

/**
 * The way to a strap's measurements, for as long as one BlueZ process lives: finds the strap,
 * connects it, and lets it notify.
 *
 * What to do next follows from what BlueZ's objects say at the moment (Advance()), so that an object
 * that comes or goes at any time needs no case of its own. A step that fails puts the strap aside;
 * when all straps are, there is a pause. While there is no strap that may be tried, BlueZ searches for
 * one, unless it is there and the settings allow no other.
 *
 * The end of the session ends its calls and takes back what it asked of BlueZ: notifications, the
 * search, and the connection if it was the session that made it. Main-loop thread only.
 */
class StrapSession
{
public:
    /**
     * @param owner  BlueZ's unique name on the bus
     *
     * What comes after it is borrowed for the life of the session.
     */
    StrapSession(GDBusConnection *connection, const std::string &owner, const BleSettings &settings,
                 RetryTimer &retry, StrapObserver &observer);
    ~StrapSession();

    StrapSession(const StrapSession &) = delete;
    StrapSession &operator=(const StrapSession &) = delete;

    /** Takes nothing back at the end: BlueZ is gone. */
    void Abandon();

private:
    enum class Step { Connecting, Resolving, Subscribing, Receiving };

    /** An adapter's search for straps. */
    struct Search
    {
        Search(GDBusConnection *connection, const std::string &owner, std::string adapter)
            : mAdapter(std::move(adapter)), mScope(connection, owner)
        {}

        std::string mAdapter;
        /** False until BlueZ has said so. */
        bool mIsOn = false;
        Parvane::BusScope mScope;
    };

    void LoadObjects();
    void OnAdded(GVariant *arguments);
    void OnRemoved(GVariant *arguments);
    void OnChanged(const std::string &path, GVariant *arguments);
    void OnMeasurementChanged(GVariant *changed);
    void OnNotificationsEnded();

    /** Takes the next step that is due, if any. */
    void Advance();
    /** Gives up what the present strap no longer has the ground for. */
    void CheckStrap();
    void Choose();
    void Take(const std::string &strap);
    void Connect();
    void OnConnected(const GError *error);
    /** For the time after a connection that no signal has told of. */
    void AskWhetherConnected();
    void Subscribe();
    void OnSubscribed(const GError *error);
    /** Puts the present strap aside after a failed step. */
    void Fail(const std::string &state);
    /** Lets go of the present strap; takes back what was asked for it. */
    void Release();
    /** Tries what was put aside again after a pause. */
    void PauseThenRetry();
    bool IsAside(const std::string &path) const { return mAside.contains(path); }

    void StartSearch();
    void OnSearchStarted(const GError *error);
    void StopSearch();

    void TellLoss();
    void TellTrouble(const std::string &state);

    const BleSettings &mSettings;
    RetryTimer &mRetry;
    StrapObserver &mObserver;
    const std::string mOwner;
    Parvane::BusScope mScope;
    BluezObjects mObjects;
    bool mAreObjectsLoaded = false;

    /** The path of the device that is worked with; empty while there is none. */
    std::string mStrap;
    std::string mStrapName;
    Step mStep = Step::Connecting;
    bool mIsOurConnection = false;
    /** The characteristic, from the call of StartNotify on. */
    std::string mMeasurement;
    bool mHasSentValues = false;
    /** Null while none is asked for. */
    std::unique_ptr<Search> mSearch;
    /** Tells the replies of the present steps from those of steps that were given up. */
    unsigned mAttempt = 0;

    /** Paths of straps and adapters that have failed since the last pause. */
    std::set<std::string> mAside;
};

} // namespace ParvanePlatform
