#include "Timeline.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <random>
#include <tuple>

namespace ParvaneWatch {

namespace {

using nlohmann::json;

constexpr std::int64_t kSecondMs = 1000;
constexpr std::int64_t kMinuteMs = 60 * kSecondMs;

/** Adds what one row's heart rate gives up to `untilMs`, which is the next one's. */
class HeartRateVoice
{
public:
    HeartRateVoice(std::uint64_t seed, std::vector<PlayEvent> &events)
        : mRandom(seed), mEvents(events)
    {}

    void Add(const HeartRateCell &cell, std::int64_t startMs, std::int64_t untilMs)
    {
        Tell(cell, startMs, 0);
        for (std::int64_t ms = kSecondMs; startMs + ms < untilMs; ms += kSecondMs) {
            if (cell.mNoise == 0 && ms >= cell.mRampMs) {
                break;
            }
            Tell(cell, startMs, ms);
        }
        // The end of a ramp need not be a whole second.
        if (cell.mRampMs > 0 && startMs + cell.mRampMs < untilMs) {
            if (cell.mNoise == 0 || cell.mRampMs % kSecondMs != 0) {
                Tell(cell, startMs, cell.mRampMs);
            }
        }
    }

private:
    void Tell(const HeartRateCell &cell, std::int64_t startMs, std::int64_t sinceMs)
    {
        std::int64_t value = cell.mTo;
        if (sinceMs < cell.mRampMs) {
            value = cell.mFrom + (cell.mTo - cell.mFrom) * sinceMs / cell.mRampMs;
        }
        if (cell.mNoise > 0) {
            // No distribution of the library: each library draws its own.
            const auto width = 2 * static_cast<std::uint64_t>(cell.mNoise) + 1;
            value += static_cast<std::int64_t>(mRandom() % width) - cell.mNoise;
            value = std::clamp<std::int64_t>(value, 0, kLargestHeartRate);
        }
        mEvents.push_back({startMs + sinceMs, PlayItem::HeartRate, static_cast<int>(value)});
    }

    std::mt19937_64 mRandom;
    std::vector<PlayEvent> &mEvents;
};

/** The steps of a cadence, those of each second at its end. */
void AddCadence(int perMinute, std::int64_t startMs, std::int64_t untilMs,
                std::vector<PlayEvent> &events)
{
    std::int64_t made = 0;
    for (std::int64_t ms = startMs; ms < untilMs;) {
        ms = std::min(ms + kSecondMs, untilMs);
        const std::int64_t due = perMinute * (ms - startMs) / kMinuteMs;
        if (due > made) {
            events.push_back({ms, PlayItem::Steps, static_cast<int>(due - made)});
            made = due;
        }
    }
}

/** The rows that have a cell in a column. */
template <typename Cell>
std::vector<const ScenarioRow *> RowsWith(Cell ScenarioRow::*cell, const Scenario &scenario)
{
    std::vector<const ScenarioRow *> rows;
    for (const ScenarioRow &row : scenario.mRows) {
        if (row.*cell) {
            rows.push_back(&row);
        }
    }
    return rows;
}

void AddHeartRates(const Scenario &scenario, std::uint64_t seed, std::vector<PlayEvent> &events)
{
    HeartRateVoice voice(seed, events);
    const auto rows = RowsWith(&ScenarioRow::mHeartRate, scenario);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const bool isLast = i + 1 == rows.size();
        voice.Add(*rows[i]->mHeartRate, rows[i]->mMs,
                  isLast ? scenario.mEndMs + 1 : rows[i + 1]->mMs);
    }
}

void AddSteps(const Scenario &scenario, std::vector<PlayEvent> &events)
{
    const auto rows = RowsWith(&ScenarioRow::mSteps, scenario);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const StepsCell &cell = *rows[i]->mSteps;
        const bool isLast = i + 1 == rows.size();
        if (cell.mAdd > 0) {
            events.push_back({rows[i]->mMs, PlayItem::Steps, cell.mAdd});
        }
        AddCadence(cell.mPerMinute.value_or(0), rows[i]->mMs,
                   isLast ? scenario.mEndMs : rows[i + 1]->mMs, events);
    }
}

} // namespace

std::string RequestText(const PlayEvent &event)
{
    constexpr std::array kActivities = {"other", "still", "walking", "running"};
    json request = {{"request", "set"}};
    switch (event.mItem) {
    case PlayItem::HeartRate:
        request["item"] = "heart_rate";
        request["value"] =
            event.mValue == HeartRateCell::kOffWrist ? json("off-wrist") : json(event.mValue);
        break;
    case PlayItem::Steps:
        request["item"] = "steps";
        request["add"] = event.mValue;
        break;
    case PlayItem::Activity:
        request["item"] = "activity";
        request["value"] = kActivities.at(static_cast<std::size_t>(event.mValue));
        break;
    case PlayItem::Gesture:
        request["item"] = "gesture";
        request["value"] = event.mValue;
        break;
    }
    return request.dump();
}

std::vector<PlayEvent> MakeTimeline(const Scenario &scenario, std::uint64_t seed)
{
    std::vector<PlayEvent> events;
    AddHeartRates(scenario, seed, events);
    AddSteps(scenario, events);
    for (const ScenarioRow &row : scenario.mRows) {
        if (row.mActivity) {
            events.push_back({row.mMs, PlayItem::Activity, *row.mActivity});
        }
        if (row.mGesture) {
            events.push_back({row.mMs, PlayItem::Gesture, *row.mGesture});
        }
    }
    std::stable_sort(events.begin(), events.end(), [](const PlayEvent &a, const PlayEvent &b) {
        return std::tuple(a.mMs, a.mItem) < std::tuple(b.mMs, b.mItem);
    });
    return events;
}

} // namespace ParvaneWatch
