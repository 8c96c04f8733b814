#include "Scenario.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <system_error>

#include "Printable.h"

namespace ParvaneWatch {

namespace {

constexpr int kLargestInt = std::numeric_limits<int>::max();
constexpr int kLargestCadence = 1000;
constexpr double kMsPerSecond = 1000.0;

constexpr const char *kHeartRates =
    "BPM from 0 to 65535, off-wrist, BPM to BPM over SECONDS, and behind a BPM: noise BPM";
constexpr const char *kSteps = "+N, or N/min with N from 0 to 1000";
constexpr const char *kTotals = "a whole number from 0 on, never less than before";
constexpr const char *kActivities = "other, still, walking, running, or 0 to 3";
constexpr const char *kGestures = "the number of a gesture";
constexpr const char *kColumns =
    "t_s or t_ms, heart_rate, steps or total_steps, activity, gesture, and those of a recording";

/** What of a recording the manual source has nothing for. */
constexpr std::array kPassedOver = {"walk_steps", "run_steps",         "distance_m",
                                    "speed",      "calories_kcal",     "peak_to_peak",
                                    "spo2",       "activity_accuracy", "restart"};

std::vector<std::string_view> Split(std::string_view text, char separator)
{
    std::vector<std::string_view> parts;
    for (;;) {
        const std::size_t end = std::min(text.find(separator), text.size());
        parts.push_back(text.substr(0, end));
        if (end == text.size()) {
            return parts;
        }
        text.remove_prefix(end + 1);
    }
}

std::string_view Trim(std::string_view text)
{
    constexpr std::string_view kBlanks = " \t\r";
    const std::size_t begin = std::min(text.find_first_not_of(kBlanks), text.size());
    text.remove_prefix(begin);
    return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

template <typename Number>
std::optional<Number> Parse(std::string_view text)
{
    Number number{};
    const char *const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

std::optional<int> ParseUpTo(std::string_view text, int largest)
{
    const auto number = Parse<int>(text);
    return number && *number >= 0 && *number <= largest ? number : std::nullopt;
}

/** Seconds with decimals, as milliseconds. */
std::optional<std::int64_t> ParseSeconds(std::string_view text)
{
    const auto seconds = Parse<double>(text);
    // Not so for NaN.
    const bool isGood = seconds && *seconds >= 0 && *seconds * kMsPerSecond <= kMaxScenarioMs;
    return isGood ? std::optional<std::int64_t>(std::llround(*seconds * kMsPerSecond))
                  : std::nullopt;
}

std::optional<HeartRateCell> ParseHeartRate(std::string_view cell)
{
    HeartRateCell heartRate;
    if (const auto number = Parse<int>(cell); cell == "off-wrist" || (number && *number < 0)) {
        heartRate.mFrom = heartRate.mTo = HeartRateCell::kOffWrist;
        return heartRate;
    }
    std::vector<std::string_view> words = Split(cell, ' ');
    std::erase(words, "");
    std::optional<int> noise = 0;
    if (words.size() >= 3 && words[words.size() - 2] == "noise") {
        noise = ParseUpTo(words.back(), kLargestHeartRate);
        words.resize(words.size() - 2);
    }
    const bool isRamp = words.size() == 5 && words[1] == "to" && words[3] == "over";
    if (!noise || (!isRamp && words.size() != 1)) {
        return std::nullopt;
    }
    const auto from = ParseUpTo(words.front(), kLargestHeartRate);
    const auto to = isRamp ? ParseUpTo(words[2], kLargestHeartRate) : from;
    const auto length = isRamp ? ParseSeconds(words[4]) : std::optional<std::int64_t>(0);
    if (!from || !to || !length || (isRamp && *length == 0)) {
        return std::nullopt;
    }
    return HeartRateCell{*from, *to, *length, *noise};
}

std::optional<StepsCell> ParseSteps(std::string_view cell)
{
    constexpr std::string_view kPerMinute = "/min";
    if (cell.ends_with(kPerMinute)) {
        cell.remove_suffix(kPerMinute.size());
        const auto cadence = ParseUpTo(cell, kLargestCadence);
        return cadence ? std::optional(StepsCell{0, cadence}) : std::nullopt;
    }
    const bool hasSign = cell.starts_with('+');
    const auto steps = hasSign ? ParseUpTo(cell.substr(1), kLargestInt) : std::nullopt;
    return steps ? std::optional(StepsCell{*steps, {}}) : std::nullopt;
}

std::optional<int> ParseActivity(std::string_view cell)
{
    constexpr std::array<std::string_view, 4> kNames = {"other", "still", "walking", "running"};
    const auto *const found = std::find(kNames.begin(), kNames.end(), cell);
    return found != kNames.end() ? static_cast<int>(found - kNames.begin()) : ParseUpTo(cell, 3);
}

/** Reads a script line by line. */
class Reader
{
public:
    explicit Reader(const std::string &name) : mName(name) {}

    Scenario Read(std::string_view text)
    {
        if (text.starts_with("\xEF\xBB\xBF")) {
            text.remove_prefix(3);
        }
        for (const std::string_view line : Split(text, '\n')) {
            ++mLine;
            if (const std::string_view content = Trim(line);
                !content.empty() && content.front() != '#') {
                mColumns.empty() ? ReadColumns(content) : ReadRow(content);
            }
        }
        if (mScenario.mRows.empty()) {
            Fail("there is no row; allowed: a line of column names, such as "
                 "t_s,heart_rate,steps,activity,gesture, and rows below it");
        }
        CheckCadence();
        return std::move(mScenario);
    }

private:
    [[noreturn]] void Fail(const std::string &what) const
    {
        throw ScenarioError(mName + ":" + std::to_string(mLine) + ": " + what);
    }

    [[noreturn]] void Refuse(std::string_view column, std::string_view cell,
                             const std::string &allowed) const
    {
        constexpr std::size_t kLongest = 60;
        Fail(std::string(column) + " is '" + Parvane::Printable(cell, kLongest) +
             "'; allowed: " + allowed);
    }

    void ReadColumns(std::string_view line)
    {
        for (const std::string_view part : Split(line, ',')) {
            const std::string_view column = Trim(part);
            constexpr std::array<std::string_view, 7> kKnown = {
                "t_s", "t_ms", "heart_rate", "steps", "total_steps", "activity", "gesture"};
            const bool isKnown =
                std::find(kKnown.begin(), kKnown.end(), column) != kKnown.end() ||
                std::find(kPassedOver.begin(), kPassedOver.end(), column) != kPassedOver.end();
            if (!isKnown) {
                Refuse("a column", column, kColumns);
            }
            if (Has(column)) {
                Refuse("a second column", column, "each column once");
            }
            mColumns.push_back(column);
        }
        if (Has("t_s") == Has("t_ms")) {
            Fail("the column of the time is missing, or there are two; allowed: either t_s, in "
                 "seconds, or t_ms, in milliseconds");
        }
        if (Has("steps") && Has("total_steps")) {
            Fail("there are two columns of steps; allowed: either steps or total_steps");
        }
    }

    [[nodiscard]] bool Has(std::string_view column) const
    {
        return std::find(mColumns.begin(), mColumns.end(), column) != mColumns.end();
    }

    void ReadRow(std::string_view line)
    {
        const std::vector<std::string_view> cells = Split(line, ',');
        if (cells.size() != mColumns.size()) {
            Fail("there are " + std::to_string(cells.size()) + " cells; allowed: " +
                 std::to_string(mColumns.size()) + ", as many as there are columns");
        }
        ScenarioRow row;
        row.mLine = mLine;
        for (std::size_t column = 0; column < cells.size(); ++column) {
            ReadCell(mColumns[column], Trim(cells[column]), row);
        }
        if (!mScenario.mRows.empty() && row.mMs < mScenario.mRows.back().mMs) {
            Fail("the time is before that of the row above; allowed: the same or a later one");
        }
        std::int64_t end = row.mMs;
        if (row.mHeartRate) {
            end += row.mHeartRate->mRampMs;
            mRampEndMs = end; // another heart rate ends the ramp before
        }
        if (end > kMaxScenarioMs) {
            Fail("the ramp ends too late; allowed: up to 604800 seconds after the start");
        }
        mScenario.mEndMs = std::max(row.mMs, mRampEndMs);
        mScenario.mRows.push_back(row);
    }

    void ReadCell(std::string_view column, std::string_view cell, ScenarioRow &row)
    {
        if (column == "t_s") {
            row.mMs = Needed(column, cell, ParseSeconds(cell), "seconds from 0 to 604800");
        } else if (column == "t_ms") {
            const auto ms = Parse<std::int64_t>(cell);
            const bool isGood = ms && *ms >= 0 && *ms <= kMaxScenarioMs;
            row.mMs = Needed(column, cell, isGood ? ms : std::nullopt,
                             "milliseconds from 0 to 604800000");
        } else if (cell.empty()) {
            return;
        } else if (column == "heart_rate") {
            row.mHeartRate = Needed(column, cell, ParseHeartRate(cell), kHeartRates);
        } else if (column == "steps") {
            row.mSteps = Needed(column, cell, ParseSteps(cell), kSteps);
        } else if (column == "total_steps") {
            const int total = Needed(column, cell, ParseUpTo(cell, kLargestInt), kTotals);
            const int before = mTotal.value_or(total);
            if (total < before) {
                Refuse(column, cell, kTotals);
            }
            row.mSteps = StepsCell{total - before, {}};
            mTotal = total;
        } else if (column == "activity") {
            row.mActivity = Needed(column, cell, ParseActivity(cell), kActivities);
        } else if (column == "gesture") {
            row.mGesture = Needed(column, cell, Parse<int>(cell), kGestures);
        }
    }

    template <typename Value>
    Value Needed(std::string_view column, std::string_view cell, const std::optional<Value> &value,
                 const char *allowed) const
    {
        if (!value) {
            Refuse(column, cell, allowed);
        }
        return *value;
    }

    /** A cadence that begins at the end would make no step. */
    void CheckCadence()
    {
        const ScenarioRow &row = mScenario.mRows.back();
        if (row.mSteps && row.mSteps->mPerMinute.value_or(0) > 0 && row.mMs == mScenario.mEndMs) {
            mLine = row.mLine;
            Fail("the cadence begins where the scenario ends; allowed: with a later row behind it, "
                 "which may have nothing but its time");
        }
    }

    const std::string &mName;
    int mLine = 0;
    std::vector<std::string_view> mColumns;
    std::optional<int> mTotal;
    std::int64_t mRampEndMs = 0;
    Scenario mScenario;
};

} // namespace

Scenario ParseScenario(const std::string &name, std::string_view text)
{
    return Reader(name).Read(text);
}

} // namespace ParvaneWatch
