#pragma once

#include <memory>
#include <string>
#include <utility>

#include "AddressSource.h"
#include "AlertMonitor.h"
#include "BusParts.h"
#include "PowerBackend.h"
#include "SensorSource.h"

namespace ParvanePlatform {

/** A backend whose holds are counted. */
class FakeBackend : public PowerBackend
{
public:
    FakeBackend(const char *name, bool &canHold, int &holds)
        : mName(name), mCanHold(canHold), mHolds(holds)
    {}

    const char *Name() const override { return mName; }

    std::unique_ptr<PowerHold> Hold(int /*timeoutMs*/) override
    {
        return mCanHold ? std::make_unique<FakeHold>(mHolds) : nullptr;
    }

private:
    class FakeHold : public PowerHold
    {
    public:
        explicit FakeHold(int &holds) : mHolds(holds) { ++mHolds; }
        ~FakeHold() override { --mHolds; }

        FakeHold(const FakeHold &) = delete;
        FakeHold &operator=(const FakeHold &) = delete;

    private:
        int &mHolds;
    };

    const char *mName;
    bool &mCanHold;
    int &mHolds;
};

/** A monitor that alerts when the test says so. */
class FakeMonitor : public AlertMonitor
{
public:
    FakeMonitor(const char *name, bool starts, Alert &alert)
        : mName(name), mStarts(starts), mAlert(alert)
    {}

    const char *Name() const override { return mName; }

    bool Start(Alert alert) override
    {
        mAlert = std::move(alert);
        return mStarts;
    }

private:
    const char *mName;
    bool mStarts;
    Alert &mAlert;
};

/** The parts of a bus on which everything is as the test says. */
class FakeBusParts : public BusParts
{
public:
    std::unique_ptr<SensorSource> MakeBleSource(const BleSettings & /*settings*/) override
    {
        return nullptr;
    }

    std::unique_ptr<PowerBackend> MakeLogindBackend() override
    {
        return std::make_unique<FakeBackend>("logind", mCanHold, mHolds);
    }

    std::unique_ptr<AlertMonitor> MakeGlibMemoryMonitor() override
    {
        return std::make_unique<FakeMonitor>("glib", mHasServices, mMemoryAlert);
    }

    std::unique_ptr<AlertMonitor> MakeUPowerMonitor() override
    {
        return std::make_unique<FakeMonitor>("upower", mHasServices, mBatteryAlert);
    }

    std::unique_ptr<AddressSource> MakeBluezAdapter(const BluetoothSettings & /*settings*/) override
    {
        return nullptr;
    }

    bool mCanHold = true;
    int mHolds = 0;
    bool mHasServices = true;
    /** Empty until the monitor is started. */
    AlertMonitor::Alert mMemoryAlert;
    AlertMonitor::Alert mBatteryAlert;
};

} // namespace ParvanePlatform
