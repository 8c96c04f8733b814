#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "Result.h"

namespace ParvaneHost {

/** An instant of the phone's clock. */
using Instant = std::chrono::sys_time<std::chrono::milliseconds>;

/** How far local time is ahead of UTC at an instant; every instant must have an answer. */
using ZoneOffset = std::function<std::chrono::seconds(std::chrono::sys_seconds)>;

/** The local date of an instant. */
std::chrono::local_days LocalDate(const ZoneOffset &zone, Instant instant);

/** One reading of the pedometer: the number on the wire, which is not the steps walked. */
struct StepTotal
{
    float mValue = 0.0F;
    /** By the watch's clock, which may be off; nothing where the wire has no time, a field of 0. */
    std::optional<std::chrono::sys_seconds> mWatchTime;
    Instant mAt; // when it arrived
};

/**
 * The steps of one local day of the phone's. A step belongs to the day on which the watch told of it:
 * those walked around midnight belong to the day of the first reading after them.
 */
struct DaySteps
{
    bool operator==(const DaySteps &) const = default;

    std::int64_t mSteps = 0; // at least so many
    bool mIsExact = false;   // and no more, from mSince to mUntil
    bool mHasLost = false;   // a stretch of it was lost, so it does not become exact any more
    bool mFromMidnight = false;
    Instant mSince; // the reading that it begins with, which counts for nothing; midnight if so
    Instant mUntil; // the reading that it ends with, so far
};

/** What is known of the steps of one day. */
struct StepsOfDay
{
    bool operator==(const StepsOfDay &) const = default;

    std::chrono::local_days mDate{};
    std::optional<DaySteps> mSteps; // nothing: none at all
};

/**
 * Recovers the steps really walked from the totals that the watch sends.
 *
 * The watch adds its count, the steps since it subscribed to its pedometer, to the total at each
 * reading, so the difference of two totals in a row is the count: docs/wire-format.md. Hand over every
 * total of a link, in order, and say what may have been missed. What a day has is never more than was
 * walked, and all of it where it says so; the rest is a lower bound: after a restart of the watch, and
 * where the wire's float has no room for each number, beyond 16,777,216. A pedometer that begins
 * anew within a gap, and is beyond its old count at the end of it, stays unseen.
 *
 * A value: no clock, no thread, no I/O. Throws what the zone throws, and std::bad_alloc.
 */
class StepLedger
{
public:
    /** How many days are kept, the latest ones. */
    static constexpr std::size_t kMaxDays = 32;

    /**
     * @param zone  by which the phone's days begin, and the watch's. Where the watch has another one,
     *              its midnight may be seen one reading late; never is more counted than was walked
     */
    explicit StepLedger(ZoneOffset zone);

    /**
     * A link is there that was not before. What came on an earlier one does not precede what comes now.
     *
     * @param run  a name of the run of the watch's service, up to 64 printable characters without
     *             blanks. Under the same name it counts on, so that nothing was lost; empty: not known
     */
    void Connected(std::string_view run = {});

    /** Totals may have been missed on this link: it was not read for too long, or one was damaged. */
    void Missed();

    /** A total, pushed or asked for alike. One that no watch sends counts as missed. */
    void Take(const StepTotal &total);

    /** Whether the count is not known for sure: ask the watch for the steps, and then look again. */
    [[nodiscard]] bool WantsQuestion() const { return mGap != Gap::None || mIsInDoubt; }

    /** By date; there is none of a day on which nothing was learned. */
    [[nodiscard]] const std::map<std::chrono::local_days, DaySteps> &Days() const { return mDays; }

    /** The day of the instant, as of its last reading that told something. */
    [[nodiscard]] StepsOfDay DayOf(Instant instant) const;

    /** All of it as text: lines, the last of them a checksum. */
    [[nodiscard]] std::string Save() const;

    /**
     * The inverse of Save(). It begins without a link, and counts on from the count that it had.
     *
     * @return the ledger; for a text that is damaged or of another version, why, in one line
     */
    static Result<StepLedger, std::string> Restore(std::string_view text, ZoneOffset zone);

private:
    /** A number that rounding, or doubt, leaves open. */
    struct Range
    {
        bool operator==(const Range &) const = default;
        [[nodiscard]] bool IsExact() const { return mLow == mHigh; }

        std::int64_t mLow = 0;
        std::int64_t mHigh = 0;
    };

    struct Total
    {
        std::int64_t mValue = 0;
        std::int64_t mError = 0; // at most so far off
        std::optional<std::chrono::sys_seconds> mWatchTime;
    };

    /** What the watch has counted since it subscribed, and what of it is of the day. */
    struct Stretch
    {
        bool operator==(const Stretch &) const = default;
        [[nodiscard]] std::int64_t Steps() const;

        std::chrono::local_days mDate{};
        Range mBegin; // the count at which the day, or the subscription, began
        Range mCount;
    };

    enum class Gap { None, Missed, Link };

    static std::optional<Total> Read(const StepTotal &total);
    [[nodiscard]] bool IsNewDay(const Total &before, const Total &now) const;
    std::optional<Range> CountAt(const Total &before, const Total &now);
    void Count(const Range &count, Instant at);
    void BeginDay(std::chrono::local_days date, bool isFollowed, Instant at);
    void MarkLost();
    bool ReadStretch(std::istream &stream, std::chrono::local_days date);

    ZoneOffset mZone;
    std::map<std::chrono::local_days, DaySteps> mDays;
    std::optional<Stretch> mStretch;
    std::string mRun;            // that mStretch is of
    std::string mLinkRun;        // that the link is to
    Gap mGap = Gap::Link;        // since mStretch
    std::optional<Total> mTotal; // the last one, unless there is a gap behind it
    bool mIsInDoubt = false;     // mStretch's count may be one of two
    bool mHasBegunAnew = false;  // the pedometer: all of the next count are new steps
};

} // namespace ParvaneHost
