#pragma once

#include <optional>
#include <string>
#include <vector>

#include "CaptureReader.h"
#include "Messages.h"
#include "StepLedger.h"

namespace ParvaneHost {

/** A reading that the phone was told. */
struct LogEntry
{
    bool operator==(const LogEntry &) const = default;

    Instant mAt; // when it came, by the clock of whoever captured it
    Sensor mSensor = Sensor::HeartRate;
    float mValue = 0.0F; // as in Reading
    /** Pedometer: the true steps of the local day of mAt so far, and whether that is all of them. */
    std::int64_t mSteps = 0;
    bool mIsExact = false;
    /** Pedometer: those since the log began, which never fall. */
    std::int64_t mStepsInAll = 0;
};

/**
 * The readings of captures, in their order, with the steps really walked.
 *
 * A packet that a capture does not say to be of the watch is passed by, and so is one that no watch sends.
 */
class ReadingLog
{
public:
    explicit ReadingLog(ZoneOffset zone);

    /** Appends a capture, which begins with a link of its own. */
    void Add(const std::vector<CapturedMessage> &capture);

    [[nodiscard]] const std::vector<LogEntry> &Entries() const noexcept { return mEntries; }

private:
    void TakeComments(const CapturedMessage &message);
    void Take(const Reading &reading, Instant at);
    void CountSteps(const Reading &reading, LogEntry &entry);

    ZoneOffset mZone;
    StepLedger mLedger;
    std::vector<LogEntry> mEntries;
    std::int64_t mStepsInAll = 0;
};

} // namespace ParvaneHost
