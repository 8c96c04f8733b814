#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace ParvaneWatch {

/**
 * What is known of a service that is observed (docs/control.md): the status with which that began, kept
 * up to date by the events. Nothing in a message can make it fail; what it does not know it ignores.
 */
class MonitorModel
{
public:
    using Time = std::chrono::steady_clock::time_point;

    /** The most values of a trend. */
    static constexpr std::size_t kTrend = 24;

    /** Begins with a status, which came at `now`; trends go on, if it is the process of the one before. */
    void Reset(const nlohmann::json &status, Time now);

    /** Whether somebody keeps the item on, so that its readings are told. */
    [[nodiscard]] bool IsOn(const std::string &item) const;

    /** Takes one event, which came at `now`. */
    void Apply(const nlohmann::json &event, Time now);

    /** The status as it is at `now`: ages have grown, and what is left of locks has shrunk. */
    [[nodiscard]] nlohmann::json Status(Time now) const;

    /**
     * The last values of an item, the oldest first: beats per minute of a watch that is worn, steps
     * since the reading before, or the number of the activity.
     */
    [[nodiscard]] std::vector<double> Trend(const std::string &item) const;

    /** Messages that were missed since the status; then what is shown may be old. */
    [[nodiscard]] std::uint64_t Missed() const { return mMissed; }

private:
    struct Part
    {
        nlohmann::json mContent;
        Time mSince;
    };

    void ApplyReading(const nlohmann::json &event, Time now);
    void AddToTrend(const std::string &item, const nlohmann::json &values);

    /** The members of the status but the items, and when each was told. */
    std::map<std::string, Part> mParts;
    /** The items, without their last readings, and those. */
    std::vector<std::string> mOrder;
    std::map<std::string, Part> mItems;
    std::map<std::string, Part> mReadings;
    std::map<std::string, std::deque<double>> mTrends;
    double mSteps = -1;
    std::uint64_t mMissed = 0;
};

} // namespace ParvaneWatch
