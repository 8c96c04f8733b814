#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace ParvaneWatch {

/** A heart rate from some row on: one value, or a ramp, and noise about it. */
struct HeartRateCell
{
    /** The value of a watch that is not worn. */
    static constexpr int kOffWrist = -3;

    int mFrom = 0; // beats per minute, or kOffWrist
    int mTo = 0;   // the same where there is no ramp
    std::int64_t mRampMs = 0;
    int mNoise = 0; // at most so far from the value, either way
};

/** Steps: so many at once, or a cadence from some row on, which 0 ends. */
struct StepsCell
{
    int mAdd = 0;
    std::optional<int> mPerMinute;
};

/** A line of a scenario. */
struct ScenarioRow
{
    int mLine = 0;        // in the file, from 1
    std::int64_t mMs = 0; // since the start
    std::optional<HeartRateCell> mHeartRate;
    std::optional<StepsCell> mSteps;
    std::optional<int> mActivity; // 0 other, 1 still, 2 walking, 3 running
    std::optional<int> mGesture;
};

/** What somebody who wears the watch does, as a script says it (docs/scenarios.md). */
struct Scenario
{
    std::vector<ScenarioRow> mRows; // never later than the next one
    std::int64_t mEndMs = 0;        // of the last row, or of the last ramp if that is later
};

/** A script that breaks a rule: "FILE:LINE: what is wrong; allowed: ...". */
class ScenarioError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/** The fastest heart, in beats per minute. */
constexpr int kLargestHeartRate = 65535;

/** The latest instant of a scenario: a week. */
constexpr std::int64_t kMaxScenarioMs = std::int64_t{7} * 24 * 3600 * 1000;

/**
 * Reads a script.
 *
 * @param name  of the file, for messages
 * @throws ScenarioError at the first thing that is wrong
 */
Scenario ParseScenario(const std::string &name, std::string_view text);

} // namespace ParvaneWatch
