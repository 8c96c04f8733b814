#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "AlertMonitor.h"
#include "Clock.h"
#include "LoopSource.h"
#include "Settings.h"
#include "Timer.h"

namespace ParvanePlatform {

/**
 * A low battery, by the files of the kernel's power supply class, which are read at a fixed period.
 *
 * Counted is each supply of the type Battery that is there, does not belong to a peripheral (scope
 * Device) and has a status and a capacity that can be read. The battery is low when one of them
 * discharges and all of them are below the limit: a machine runs until its last battery is empty.
 */
class SysfsBatteryMonitor : public AlertMonitor
{
public:
    /**
     * @param clock  borrowed for the life of this object
     * @param timer  when the files are read next
     */
    SysfsBatteryMonitor(BatterySettings settings, const Clock &clock, std::unique_ptr<Timer> timer);

    const char *Name() const override { return "sysfs"; }

    /**
     * Returns false when there is no battery now; goes on to read all the same, as one may come.
     * A battery that is low already alerts in the next turn of the loop.
     */
    bool Start(Alert alert) override;

private:
    /** What the files say. */
    struct Reading
    {
        int mCounted = 0;
        bool mIsAnyDischarging = false;
        bool mAreAllBelow = true;
        /** The first thing that could not be read; empty when all could. */
        std::string mProblem;
    };

    Reading Read() const;
    void ReadSupply(const std::string &path, Reading &reading) const;
    void ReadBattery(const std::string &path, Reading &reading) const;
    /** Reads, and sets the timer. Returns whether the battery has become low. */
    bool Update();
    void ReportProblem(const std::string &problem);

    BatterySettings mSettings;
    const Clock &mClock;
    std::unique_ptr<Timer> mTimer;
    Alert mAlert;
    Parvane::LoopSource mFirstAlert;
    std::string mProblem;
    bool mIsThere = false;
    /** Kept while nothing can be read, so that one crossing alerts once. */
    bool mIsLow = false;
};

} // namespace ParvanePlatform
