#include "Runtime.h"

#include <algorithm>
#include <utility>

#include "AllowedUser.h"
#include "ControlCommands.h"
#include "PowerBackends.h"
#include "RuntimeLog.h"
#include "SensorSources.h"

namespace ParvanePlatform {

namespace {

Runtime *gCurrent = nullptr;

/** Null when the address is a kept one. */
std::unique_ptr<AddressSource> MakeAddressSource(const BluetoothSettings &settings, BusParts *bus)
{
    return settings.mAdapter == BluetoothSettings::Adapter::Bluez ? bus->MakeBluezAdapter(settings)
                                                                  : nullptr;
}

} // namespace

Runtime::Parts::Parts(const Settings &settings, const Clock &clock, LifecycleEvents &events,
                      SensorSources sources, std::unique_ptr<BusParts> bus)
    : mBus(std::move(bus)),
      mPreferences(settings.mStateDirectory, clock),
      mKeys(settings.mRuntimeDirectory, settings.mStateDirectory),
      mContext(std::move(sources), clock),
      mBluetooth(settings.mBluetooth.mAddress, settings.mStateDirectory,
                 MakeAddressSource(settings.mBluetooth, mBus.get())),
      mPower(clock, MakePowerBackends(settings.mPower, mBus.get())),
      mLink(settings.mRuntimeDirectory, mKeys, clock,
            AllowedUser(settings.mLinkAllow, "accessory link")),
      mAlerts(settings, clock, events, mBus.get())
{
    for (const ContextManager::ItemStatus &item : mContext.Status()) {
        if (!item.mProblem.empty()) {
            std::string name = NameOf(item.mItem);
            std::replace(name.begin(), name.end(), '_', ' ');
            LogWarning("%s: %s", name.c_str(), item.mProblem.c_str());
        }
    }
    if (settings.mControl) {
        auto commands = std::make_unique<ControlCommands>(
            ControlledParts{clock, mPreferences, mKeys, mContext, mPower, mLink, events, settings});
        mControl = std::make_unique<ControlServer>(settings.mRuntimeDirectory, std::move(commands),
                                                   mContext, clock,
                                                   AllowedUser(settings.mControlAllow, "control"));
    }
}

Runtime::Runtime(const Settings &settings, LifecycleEvents &events)
{
    // The recording first: what is wrong in it is told before anything is made on the disk.
    auto bus = LoadBusParts(UseOfBus(settings));
    SensorSources sources(settings, mClock, bus.get());
    PrepareDirectory(settings.mStateDirectory, "state");
    // Its content ends with the process: a start does not wait for the disk because of it.
    PrepareDirectory(settings.mRuntimeDirectory, "run-time", Durability::FileSystem);
    if (!settings.mLinkAllow.empty() || !settings.mControlAllow.empty()) {
        LetOthersThrough(settings.mRuntimeDirectory);
    }
    mLocks.push_back(InstanceLock::OfRunTime(settings.mRuntimeDirectory));
    if (!mLocks.back().IsHeld()) {
        mTaken =
            "run-time directory " + settings.mRuntimeDirectory +
            ": end it, or set RUNTIME_DIRECTORY and STATE_DIRECTORY to some of this service alone";
        return;
    }
    mLocks.push_back(InstanceLock::OfState(settings.mStateDirectory));
    if (!mLocks.back().IsHeld()) {
        mTaken = "state directory " + settings.mStateDirectory +
                 ": end it, or set STATE_DIRECTORY to one for this service alone";
        return;
    }
    mParts = std::make_unique<Parts>(settings, mClock, events, std::move(sources), std::move(bus));
    gCurrent = this;
}

Runtime::~Runtime()
{
    if (gCurrent == this) {
        gCurrent = nullptr;
    }
}

Runtime *Runtime::Current()
{
    return gCurrent;
}

} // namespace ParvanePlatform
