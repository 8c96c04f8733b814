#include "ReadingLog.h"

#include <algorithm>
#include <utility>
#include <variant>

#include "WireCodec.h"

namespace ParvaneHost {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

/** The name of the run in the comment of a link's first packet; empty without one. */
std::string RunOf(const std::string &comment)
{
    static const std::string before = std::string(Parvane::CaptureFile::kLinkBegins) + ", run ";
    return comment.starts_with(before) ? comment.substr(before.size()) : std::string();
}

std::int64_t Sum(const StepLedger &ledger)
{
    std::int64_t steps = 0;
    for (const auto &[date, day] : ledger.Days()) {
        steps += day.mSteps;
    }
    return steps;
}

} // namespace

ReadingLog::ReadingLog(ZoneOffset zone) : mZone(zone), mLedger(std::move(zone)) {}

void ReadingLog::Add(const std::vector<CapturedMessage> &capture)
{
    mLedger.Connected();
    for (const CapturedMessage &message : capture) {
        TakeComments(message);
        if (message.mSender != Parvane::Sender::Watch) {
            continue;
        }
        const auto reply = Decode(message.mBytes);
        if (!reply) {
            mLedger.Missed(); // it may have been steps
        } else if (const auto *reading = std::get_if<Reading>(&reply.Value())) {
            Take(*reading, std::chrono::floor<milliseconds>(message.mAt));
        }
    }
}

void ReadingLog::TakeComments(const CapturedMessage &message)
{
    for (const std::string &comment : message.mComments) {
        if (comment.starts_with(Parvane::CaptureFile::kLinkBegins)) {
            mLedger.Connected(RunOf(comment));
        } else if (comment == Parvane::CaptureFile::kPacketsMissing) {
            mLedger.Missed();
        }
    }
}

void ReadingLog::Take(const Reading &reading, Instant at)
{
    if (SensorName(reading.mSensor) == SensorName(Sensor{0})) {
        return; // of a later watch
    }
    LogEntry entry{at, reading.mSensor, reading.mValue};
    if (reading.mSensor == Sensor::Pedometer) {
        CountSteps(reading, entry);
    }
    mEntries.push_back(entry);
}

void ReadingLog::CountSteps(const Reading &reading, LogEntry &entry)
{
    StepTotal total{reading.mValue, std::nullopt, entry.mAt};
    if (reading.mTimeFieldMs != 0) {
        const milliseconds time(
            FullTimeMs(reading.mTimeFieldMs, entry.mAt.time_since_epoch().count()));
        total.mWatchTime = std::chrono::floor<seconds>(std::chrono::sys_time<milliseconds>(time));
    }
    // Days that the ledger no longer keeps take their steps with them.
    const std::int64_t before = Sum(mLedger);
    mLedger.Take(total);
    mStepsInAll += std::max(Sum(mLedger) - before, std::int64_t{0});
    entry.mStepsInAll = mStepsInAll;
    const auto day = mLedger.Days().find(LocalDate(mZone, entry.mAt));
    if (day != mLedger.Days().end()) {
        entry.mSteps = day->second.mSteps;
        entry.mIsExact = day->second.mIsExact && !mLedger.WantsQuestion();
    }
}

} // namespace ParvaneHost
