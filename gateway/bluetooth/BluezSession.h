#pragma once

#include <chrono>
#include <deque>
#include <memory>
#include <set>
#include <string>

#include "BluetoothPhone.h"
#include "BluetoothTimes.h"
#include "BluezDevices.h"
#include "BusScope.h"
#include "GattObjects.h"
#include "LoopSource.h"
#include "PhoneSeat.h"
#include "Registration.h"
#include "Settings.h"

namespace ParvaneGateway {

/** Hears how the road is doing. Must not destroy the session. */
class BluezSessionEvents
{
public:
    virtual ~BluezSessionEvents() = default;

    /** How things stand, in words, whenever it may have changed, and whether that is a trouble. */
    virtual void OnState(const std::string &state, bool isTrouble) = 0;

    /** A phone was refused. @param reason  such as "not bonded"; empty where the seat has counted it */
    virtual void OnRefused(const std::string &reason) = 0;
};

/**
 * The road's doings with one life of BlueZ: lets an adapter serve the link's attributes, advertises them
 * while no phone is seated, and seats the phone that subscribes or writes.
 *
 * What is due follows from what BlueZ's objects say at the moment (Advance()), so that an adapter or a
 * device that comes or goes at any time needs no case of its own. The end of the session takes back what
 * BlueZ was asked for.
 *
 * BlueZ gives one descriptor for all phones that write a characteristic, and notifies all that have
 * subscribed to it, which it remembers of bonded phones that are away. So descriptors are in use only
 * while no other paired device is connected, a device that is no business of the seat is disconnected,
 * and nothing is sent before it is gone. Main-loop thread only.
 */
class BluezSession : private GattEvents, private BluetoothPhoneEvents
{
public:
    // The error codes that a refused phone's write ends with, docs/transports.md.
    static constexpr char kAnotherPhone[] = "0x81";
    static constexpr char kWatchAway[] = "0x82";
    static constexpr char kSmallMtu[] = "0x83";
    static constexpr char kNotBonded[] = "0x84";

    /**
     * What is a reference is borrowed for the life of the session.
     *
     * @param owner  BlueZ's unique name on the bus
     */
    BluezSession(GDBusConnection *connection, const std::string &owner,
                 const BluetoothSettings &settings, const BluetoothTimes &times, PhoneSeat &seat,
                 BluezSessionEvents &events);
    ~BluezSession() override = default;

    BluezSession(const BluezSession &) = delete;
    BluezSession &operator=(const BluezSession &) = delete;

    /** The seat is taken, or free again. */
    void OnSeatChanged() { Advance(); }

private:
    /** The two things that an adapter is asked for. */
    struct Service
    {
        Service(const Parvane::BusScope &bluez, const std::string &adapter,
                std::chrono::milliseconds firstPause, const Registration::Changed &changed);

        std::string mAdapter;
        Registration mApplication;
        Registration mAdvertisement;
    };

    /** Asks BlueZ for all that it has, until it answers. */
    void Load();
    void OnAdded(GVariant *arguments);
    void OnRemoved(GVariant *arguments);
    void OnChanged(const std::string &path, GVariant *arguments);

    /** Takes the steps that are due. */
    void Advance();
    void ChooseAdapter();
    void CheckPhone();
    void CheckOthers();
    void TellState();
    [[nodiscard]] bool IsConnected(const std::string &device) const;
    /** Whether no device but the seated phone could reach the characteristics. */
    [[nodiscard]] bool IsAlone() const;

    void OnGattCall(GattCall call) override;
    void OnAdvertisementReleased() override;
    void Take(GattCall call);
    /** Seats the phone of a call if it is not. @return the code with which it is refused; null for none */
    const char *Admit(const GattCall &call);
    void Serve(GattCall call);
    void ServeDescriptor(GattCall call);
    void Refuse(GattCall call, const char *code);
    /** Takes the calls anew that wait for the bond of their phone. */
    void TakeHeld();
    void RefuseHeld();

    void Dismiss(const std::string &device, const std::string &reason);
    void Leave();
    void OnDescriptorClosed() override { Leave(); }
    void OnGivenUp(PhoneEnd why) override;

    [[nodiscard]] std::string NameOf(const std::string &device) const;

    const BluetoothSettings &mSettings;
    const BluetoothTimes &mTimes;
    PhoneSeat &mSeat;
    BluezSessionEvents &mEvents;
    std::chrono::milliseconds mLoadPause;
    Parvane::LoopSource mReload;
    Parvane::BusScope mBluez;
    GattObjects mObjects;
    BluezDevices mDevices;
    bool mIsLoaded = false;
    /** Null while there is no adapter. */
    std::unique_ptr<Service> mService;
    /** Null while there is none on this road. */
    std::unique_ptr<BluetoothPhone> mPhone;
    /** Phones that the seat has given up, for the rest of the turn. */
    std::unique_ptr<BluetoothPhone> mGivenUp;
    Parvane::LoopSource mRemoval;
    /** Devices that BlueZ may notify: they have asked for it, and BlueZ keeps that. */
    std::set<std::string> mSubscribers;
    /** Devices that BlueZ was asked to disconnect, and that still are connected. */
    std::set<std::string> mDismissed;
    std::deque<GattCall> mHeld;
    Parvane::LoopSource mHeldLimit;
    bool mIsAdvancing = false;
};

} // namespace ParvaneGateway
