#include "Runtime.h"

#include <utility>

#include "context_manager/SensorSources.h"

namespace ParvanePlatform {

namespace {

Runtime *gCurrent = nullptr;

} // namespace

Runtime::Parts::Parts(const Settings &settings, const Clock &clock,
                      std::unique_ptr<SensorSource> source)
    : mPreferences(settings.mStateDirectory, clock),
      mKeys(settings.mRuntimeDirectory, settings.mStateDirectory),
      mContext(std::move(source), clock),
      mBluetooth(settings.mBluetoothAddress, settings.mStateDirectory),
      mPower(clock),
      mLink(settings.mRuntimeDirectory, mKeys, clock)
{}

Runtime::Runtime(const Settings &settings)
{
    // The recording first: what is wrong in it is told before anything is made on the disk.
    auto source = MakeSensorSource(settings, mClock);
    PrepareDirectory(settings.mStateDirectory, "state");
    PrepareDirectory(settings.mRuntimeDirectory, "run-time");
    mLock = std::make_unique<InstanceLock>(settings.mRuntimeDirectory);
    if (!mLock->IsHeld()) {
        return;
    }
    mParts = std::make_unique<Parts>(settings, mClock, std::move(source));
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
