#include "Recording.h"

#include <algorithm>
#include <array>
#include <limits>
#include <optional>
#include <utility>

#include "base/Files.h"
#include "base/Numbers.h"
#include "base/StartupError.h"

namespace ParvanePlatform {

namespace {

constexpr std::size_t kMaxFileBytes = std::size_t{256} * 1024 * 1024;
constexpr std::int64_t kMaxTimeMs = 1'000'000'000'000;
constexpr double kMaxSteps = std::numeric_limits<std::int32_t>::max();
constexpr double kMaxDecimal = 1e9;
constexpr std::int64_t kSingleRowMs = 1000;

enum Column : std::size_t {
    kTimeColumn,
    kHeartRateColumn,
    kFirstPedometerColumn,
    kActivityColumn = kFirstPedometerColumn + kPedometerFields,
    kGestureColumn,
    kColumns
};

constexpr std::array<std::string_view, kColumns> kColumnNames = {
    "t_ms",       "heart_rate",    "total_steps", "walk_steps", "run_steps",
    "distance_m", "calories_kcal", "speed",       "activity",   "gesture"};

std::string AllColumnNames()
{
    std::string names;
    for (const std::string_view name : kColumnNames) {
        names.append(names.empty() ? "" : ",").append(name);
    }
    return names;
}

std::string Quoted(std::string_view text)
{
    return std::string("'").append(text).append("'");
}

/** Reads the text line by line, and knows where it is. */
class Parser
{
public:
    Parser(const std::string &name, std::string_view text) : mName(name), mRest(text) {}

    Recording Parse();

private:
    bool NextLine(std::string_view &line);
    void ParseColumnNames(std::string_view line);
    RecordingRow ParseRow(std::string_view line);
    void ParseCell(RecordingRow &row, std::size_t column, std::string_view cell) const;
    std::int64_t ParseTime(std::string_view cell) const;
    void ParsePedometer(RecordingRow &row, std::size_t field, std::string_view cell) const;
    double ParseSteps(std::string_view cell) const;
    double ParseDecimalValue(std::string_view cell) const;
    int ParseWhole(std::string_view cell) const;
    int ParseActivity(std::string_view cell) const;

    [[noreturn]] void FailAtLine(const std::string &reason) const;
    [[noreturn]] void FailAtColumn(const std::string &reason) const;

    const std::string &mName;
    std::string_view mRest;
    std::size_t mLine = 0;
    /** Position of the cell that is read, from 1, and what its column is. */
    std::size_t mPosition = 0;
    std::string_view mColumnName;
    /** What the columns are, in the order of the file. */
    std::vector<std::size_t> mOrder;
    RecordingRow mLast;
};

std::int64_t LoopLength(const std::vector<RecordingRow> &rows)
{
    if (rows.size() == 1) {
        return rows.front().mTimeMs + kSingleRowMs;
    }
    std::vector<std::int64_t> distances;
    for (std::size_t i = 1; i < rows.size(); ++i) {
        distances.push_back(rows[i].mTimeMs - rows[i - 1].mTimeMs);
    }
    const auto median = distances.begin() + static_cast<std::ptrdiff_t>(distances.size() / 2);
    std::nth_element(distances.begin(), median, distances.end());
    return rows.back().mTimeMs + std::max<std::int64_t>(*median, 1);
}

Recording Parser::Parse()
{
    std::string_view line;
    bool found = false;
    while (!found && NextLine(line)) {
        found = !line.starts_with('#');
    }
    if (!found) {
        throw StartupError(mName + ": there is no line of column names");
    }
    ParseColumnNames(line);

    Recording recording;
    std::size_t emptyLine = 0;
    while (NextLine(line)) {
        if (line.empty()) {
            // Fine at the end of the file, and only there.
            emptyLine = emptyLine == 0 ? mLine : emptyLine;
            continue;
        }
        if (emptyLine != 0) {
            mLine = emptyLine;
            FailAtLine("the line is empty");
        }
        recording.mRows.push_back(ParseRow(line));
    }
    if (recording.mRows.empty()) {
        throw StartupError(mName + ": there are no rows");
    }
    recording.mRows.shrink_to_fit();
    recording.mLoopMs = LoopLength(recording.mRows);
    return recording;
}

bool Parser::NextLine(std::string_view &line)
{
    if (mRest.empty()) {
        return false;
    }
    const std::size_t end = mRest.find('\n');
    line = mRest.substr(0, end);
    mRest.remove_prefix(end == std::string_view::npos ? mRest.size() : end + 1);
    if (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    ++mLine;
    return true;
}

/** Calls `take` with each cell of a line. */
template <typename Take>
void ForEachCell(std::string_view line, Take take)
{
    for (;;) {
        const std::size_t comma = line.find(',');
        take(line.substr(0, comma));
        if (comma == std::string_view::npos) {
            return;
        }
        line.remove_prefix(comma + 1);
    }
}

void Parser::ParseColumnNames(std::string_view line)
{
    mPosition = 0;
    ForEachCell(line, [this](std::string_view name) {
        ++mPosition;
        const auto *const found = std::find(kColumnNames.begin(), kColumnNames.end(), name);
        if (found == kColumnNames.end()) {
            FailAtColumn("there is no column " + Quoted(name) + "; the columns are " +
                         AllColumnNames());
        }
        const auto column = static_cast<std::size_t>(found - kColumnNames.begin());
        if (std::find(mOrder.begin(), mOrder.end(), column) != mOrder.end()) {
            FailAtColumn("the column " + std::string(name) + " is there already");
        }
        mOrder.push_back(column);
    });
    for (std::size_t column = 0; column < kColumns; ++column) {
        if (std::find(mOrder.begin(), mOrder.end(), column) == mOrder.end()) {
            FailAtLine("the column " + std::string(kColumnNames[column]) + " is missing");
        }
    }
}

RecordingRow Parser::ParseRow(std::string_view line)
{
    const auto cells = static_cast<std::size_t>(std::count(line.begin(), line.end(), ',')) + 1;
    if (cells != kColumns) {
        FailAtLine("the row has " + std::to_string(cells) + " cells instead of " +
                   std::to_string(kColumns));
    }
    RecordingRow row;
    row.mPedometer = mLast.mPedometer;
    row.mKnownPedometer = mLast.mKnownPedometer;
    mPosition = 0;
    ForEachCell(line, [this, &row](std::string_view cell) {
        const std::size_t column = mOrder[mPosition];
        ++mPosition;
        mColumnName = kColumnNames[column];
        ParseCell(row, column, cell);
    });
    mLast = row;
    return row;
}

void Parser::ParseCell(RecordingRow &row, std::size_t column, std::string_view cell) const
{
    if (column == kTimeColumn) {
        row.mTimeMs = ParseTime(cell);
        return;
    }
    if (cell.empty()) {
        return;
    }
    switch (column) {
    case kHeartRateColumn:
        row.mHeartRate = ParseWhole(cell);
        row.mHasHeartRate = true;
        break;
    case kActivityColumn:
        row.mActivity = ParseActivity(cell);
        row.mHasActivity = true;
        break;
    case kGestureColumn:
        row.mGesture = ParseWhole(cell);
        row.mHasGesture = true;
        break;
    default:
        ParsePedometer(row, column - kFirstPedometerColumn, cell);
        break;
    }
}

std::int64_t Parser::ParseTime(std::string_view cell) const
{
    const auto time = ParseInteger<std::int64_t>(cell);
    if (!time || *time < 0 || *time > kMaxTimeMs) {
        FailAtColumn(Quoted(cell) + " is not a time from 0 to " + std::to_string(kMaxTimeMs) +
                     " ms");
    }
    if (*time < mLast.mTimeMs) {
        FailAtColumn("the time goes back from " + std::to_string(mLast.mTimeMs) + " to " +
                     std::to_string(*time) + " ms");
    }
    return *time;
}

void Parser::ParsePedometer(RecordingRow &row, std::size_t field, std::string_view cell) const
{
    const bool isSteps = field <= kRunSteps;
    const double value = isSteps ? ParseSteps(cell) : ParseDecimalValue(cell);
    if (field < kPedometerCounters && value < row.mPedometer[field]) {
        FailAtColumn("the counter goes down to " + std::string(cell));
    }
    row.mPedometer[field] = value;
    row.mKnownPedometer = static_cast<std::uint8_t>(row.mKnownPedometer | (1U << field));
    row.mHasPedometer = true;
}

double Parser::ParseSteps(std::string_view cell) const
{
    const auto steps = ParseInteger<std::int64_t>(cell);
    if (!steps || *steps < 0 || static_cast<double>(*steps) > kMaxSteps) {
        FailAtColumn(Quoted(cell) + " is not a whole number from 0 to 2147483647");
    }
    return static_cast<double>(*steps);
}

double Parser::ParseDecimalValue(std::string_view cell) const
{
    const auto value = ParseDecimal(cell);
    if (!value || *value < 0.0 || *value > kMaxDecimal) {
        FailAtColumn(Quoted(cell) + " is not a decimal number from 0 to 1000000000");
    }
    return *value;
}

int Parser::ParseWhole(std::string_view cell) const
{
    const auto value = ParseInteger<std::int32_t>(cell);
    if (!value) {
        FailAtColumn(Quoted(cell) + " is not a whole number of 32 bits");
    }
    return *value;
}

int Parser::ParseActivity(std::string_view cell) const
{
    const auto value = ParseInteger<std::int32_t>(cell);
    if (!value || *value < 0 || *value > 3) {
        FailAtColumn(Quoted(cell) + " is not an activity from 0 to 3");
    }
    return *value;
}

void Parser::FailAtLine(const std::string &reason) const
{
    throw StartupError(mName + ": line " + std::to_string(mLine) + ": " + reason);
}

void Parser::FailAtColumn(const std::string &reason) const
{
    std::string column = std::to_string(mPosition);
    if (!mColumnName.empty()) {
        column.append(" (").append(mColumnName).append(")");
    }
    throw StartupError(mName + ": line " + std::to_string(mLine) + ", column " + column + ": " +
                       reason);
}

} // namespace

Recording ParseRecording(const std::string &name, std::string_view text)
{
    return Parser(name, text).Parse();
}

Recording LoadRecording(const std::string &path)
{
    std::string text;
    if (const int error = ReadWholeFile(path, kMaxFileBytes, text); error != 0) {
        throw StartupError("cannot read the recording " + path + ": " + ErrorText(error));
    }
    return ParseRecording(path, text);
}

Recording LoadRecordings(const std::vector<std::string> &paths)
{
    return LoadRecording(paths.front());
}

} // namespace ParvanePlatform
