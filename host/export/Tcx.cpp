#include "Tcx.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

#include "ExportText.h"

namespace ParvaneHost {

namespace {

using std::chrono::milliseconds;

constexpr std::chrono::minutes kLongestRest{10};

bool IsMoving(Activity activity)
{
    return activity == Activity::Walking || activity == Activity::Running;
}

/** Cuts a log into trainings, entry by entry. */
class TrainingFinder
{
public:
    void Take(const LogEntry &entry)
    {
        if (mLast && entry.mAt - *mLast > kLongestRest) {
            EndLap(*mLast);
            End();
        }
        mLast = std::max(mLast.value_or(entry.mAt), entry.mAt);
        const auto activity =
            entry.mSensor == Sensor::Activity ? ActivityOf(entry.mValue) : std::nullopt;
        if (activity && *activity != Activity::WristGesture &&
            !(mLap && mLap->mActivity == *activity)) {
            EndLap(*mLast);
            mLap = Lap{*activity, *mLast, *mLast};
        }
    }

    std::vector<Training> Finish()
    {
        if (mLast) {
            EndLap(*mLast);
        }
        End();
        return std::move(mTrainings);
    }

private:
    void EndLap(Instant at)
    {
        if (!mLap) {
            return;
        }
        Lap lap = *mLap;
        mLap.reset();
        lap.mEnd = at;
        const bool isRest = !IsMoving(lap.mActivity);
        if (isRest && lap.mEnd - lap.mBegin > kLongestRest) {
            End();
        } else if (lap.mEnd > lap.mBegin && !(isRest && mTraining.empty())) {
            mTraining.push_back(lap);
        }
    }

    void End()
    {
        while (!mTraining.empty() && !IsMoving(mTraining.back().mActivity)) {
            mTraining.pop_back();
        }
        if (!mTraining.empty()) {
            mTrainings.push_back(std::move(mTraining));
        }
        mTraining.clear();
    }

    std::optional<Instant> mLast;
    std::optional<Lap> mLap;
    Training mTraining;
    std::vector<Training> mTrainings;
};

/** The latest entry of the pedometer at an instant gives the steps until then. */
std::int64_t StepsUntil(const std::vector<LogEntry> &log, Instant at)
{
    std::int64_t steps = 0;
    for (const LogEntry &entry : log) {
        if (entry.mAt > at) {
            break;
        }
        steps = entry.mSensor == Sensor::Pedometer ? entry.mStepsInAll : steps;
    }
    return steps;
}

/** The heart rates of a lap that the document can hold; of an instant at its end the last lap's. */
std::vector<LogEntry> HeartRates(const std::vector<LogEntry> &log, const Lap &lap, bool isLast)
{
    constexpr float kMost = 255;
    std::vector<LogEntry> rates;
    for (const LogEntry &entry : log) {
        const bool isWithin =
            entry.mAt >= lap.mBegin && (entry.mAt < lap.mEnd || (isLast && entry.mAt == lap.mEnd));
        if (entry.mSensor == Sensor::HeartRate && isWithin && entry.mValue >= 1 &&
            entry.mValue <= kMost) {
            rates.push_back(entry);
        }
    }
    return rates;
}

std::string Point(Instant at, const std::string &rate)
{
    return "          <Trackpoint><Time>" + UtcText(at) + "</Time>" + rate + "</Trackpoint>\n";
}

std::string RateText(const char *name, float rate)
{
    return std::string("<") + name + "><Value>" + std::to_string(std::lround(rate)) + "</Value></" +
           name + ">";
}

std::string SecondsText(milliseconds length)
{
    const auto ms = length.count() % 1000;
    return std::to_string(length.count() / 1000) + "." + std::to_string(1000 + ms).substr(1);
}

std::string LapText(const std::vector<LogEntry> &log, const Lap &lap, bool isLast)
{
    constexpr std::int64_t kMostSteps = 65535;
    const std::vector<LogEntry> rates = HeartRates(log, lap, isLast);
    std::string text = "      <Lap StartTime=\"" + UtcText(lap.mBegin) +
                       "\">\n        <TotalTimeSeconds>" + SecondsText(lap.mEnd - lap.mBegin) +
                       "</TotalTimeSeconds>\n        <DistanceMeters>0</DistanceMeters>\n"
                       "        <Calories>0</Calories>\n";
    if (!rates.empty()) {
        float sum = 0;
        float most = 0;
        for (const LogEntry &entry : rates) {
            sum += entry.mValue;
            most = std::max(most, entry.mValue);
        }
        text += "        " +
                RateText("AverageHeartRateBpm", sum / static_cast<float>(rates.size())) +
                "\n        " + RateText("MaximumHeartRateBpm", most) + "\n";
    }
    text += std::string("        <Intensity>") + (IsMoving(lap.mActivity) ? "Active" : "Resting") +
            "</Intensity>\n        <TriggerMethod>Manual</TriggerMethod>\n        <Track>\n";
    text += rates.empty() || rates.front().mAt > lap.mBegin ? Point(lap.mBegin, "") : "";
    for (const LogEntry &entry : rates) {
        text += Point(entry.mAt, RateText("HeartRateBpm", entry.mValue));
    }
    text += rates.empty() || rates.back().mAt < lap.mEnd ? Point(lap.mEnd, "") : "";
    const std::int64_t steps = StepsUntil(log, lap.mEnd) - StepsUntil(log, lap.mBegin);
    return text +
           "        </Track>\n        <Extensions>\n          <LX "
           "xmlns=\"http://www.garmin.com/xmlschemas/ActivityExtension/v2\"><Steps>" +
           std::to_string(std::min(steps, kMostSteps)) +
           "</Steps></LX>\n        </Extensions>\n      </Lap>\n";
}

/** What it was for the most part. */
std::string SportOf(const Training &training)
{
    milliseconds running{0};
    milliseconds all{0};
    for (const Lap &lap : training) {
        all += lap.mEnd - lap.mBegin;
        running += lap.mActivity == Activity::Running ? lap.mEnd - lap.mBegin : milliseconds{0};
    }
    return running * 2 > all ? "Running" : "Other";
}

} // namespace

std::vector<Training> FindTrainings(const std::vector<LogEntry> &log)
{
    const bool isFollowed = std::any_of(log.begin(), log.end(), [](const LogEntry &entry) {
        return entry.mSensor == Sensor::Activity;
    });
    if (!isFollowed && !log.empty() && log.back().mAt > log.front().mAt) {
        // Nothing says when it was; that it was one is for the person to know.
        return {{{Activity::Walking, log.front().mAt, log.back().mAt}}};
    }
    TrainingFinder finder;
    for (const LogEntry &entry : log) {
        finder.Take(entry);
    }
    return finder.Finish();
}

std::string TcxText(const std::vector<LogEntry> &log)
{
    std::string text =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<TrainingCenterDatabase "
        "xmlns=\"http://www.garmin.com/xmlschemas/TrainingCenterDatabase/v2\">\n  <Activities>\n";
    for (const Training &training : FindTrainings(log)) {
        text += "    <Activity Sport=\"" + SportOf(training) + "\">\n      <Id>" +
                UtcText(training.front().mBegin) + "</Id>\n";
        for (const Lap &lap : training) {
            text += LapText(log, lap, &lap == &training.back());
        }
        text += "    </Activity>\n";
    }
    return text + "  </Activities>\n</TrainingCenterDatabase>\n";
}

} // namespace ParvaneHost
