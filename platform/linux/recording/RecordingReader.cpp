#include "RecordingReader.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <new>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "Files.h"
#include "MessageText.h"
#include "Numbers.h"
#include "StartupError.h"

namespace ParvanePlatform {

namespace {

constexpr std::size_t kMaxFileBytes = std::size_t{256} * 1024 * 1024;
constexpr std::int64_t kSingleRowMs = 1000;
constexpr unsigned kAllFields = (1U << kPedometerFields) - 1;

std::string ColumnNames(std::size_t first, std::size_t end)
{
    std::string names;
    for (std::size_t column = first; column < end; ++column) {
        names.append(names.empty() ? "" : ",").append(InfoOf(column).mName);
    }
    return names;
}

std::string Quoted(std::string_view text)
{
    return std::string("'").append(Printable(text)).append("'");
}

/** What the column restart does to the pedometer. */
void Restart(RecordingRow &row, RestartMark mark)
{
    if (mark == RestartMark::Anew) {
        for (std::size_t field = 0; field < kPedometerFields; ++field) {
            row.Pedometer(field) = 0.0;
        }
        row.mToldPedometer = 0;
        row.mIsRestarted = true;
    }
    row.mKnownPedometer = 0;
    row.mForgottenPedometer = kAllFields;
}

/** Reads the text line by line, and knows where it is. */
class RecordingReader
{
public:
    RecordingReader(const std::string &name, std::string_view text)
        : mName(PrintablePath(name)), mRest(WithoutByteOrderMark(text))
    {}

    Recording Parse();

private:
    bool NextLine(std::string_view &line);
    void ParseColumnNames(std::string_view line);
    RecordingRow ParseRow(std::string_view line);
    void ParseCell(RecordingRow &row, std::size_t position);
    void NoteFirstCounts(const RecordingRow &row);
    std::int64_t ParseTime(std::string_view cell) const;
    double ParseValue(std::size_t column, std::string_view cell) const;
    void SetPedometer(RecordingRow &row, std::size_t field, double value) const;

    [[noreturn]] void FailAtLine(const std::string &reason) const;
    [[noreturn]] void FailAtColumn(const std::string &reason) const;

    const std::string mName;
    std::string_view mRest;
    std::size_t mLine = 0;
    /** Position of the cell that is read, from 1, and what its column is. */
    std::size_t mPosition = 0;
    std::string_view mColumnName;
    /** What the columns are, in the order of the file. */
    std::vector<std::size_t> mOrder;
    /** Where the column restart is; mOrder.size() when there is none. */
    std::size_t mRestartPosition = 0;
    /** The cells of the row that is read. */
    std::vector<std::string_view> mCells;
    RecordingRow mLast;
    PedometerCounts mFirst;
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

Recording RecordingReader::Parse()
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
    recording.mFirst = mFirst;
    return recording;
}

bool RecordingReader::NextLine(std::string_view &line)
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

void RecordingReader::ParseColumnNames(std::string_view line)
{
    mPosition = 0;
    ForEachCell(line, [this](std::string_view name) {
        ++mPosition;
        std::size_t column = 0;
        while (column < kRecordingColumns && InfoOf(column).mName != name) {
            ++column;
        }
        if (column == kRecordingColumns) {
            FailAtColumn("there is no column " + Quoted(name) + "; the columns are " +
                         ColumnNames(0, kRequiredColumns) + " and, where they are needed, " +
                         ColumnNames(kRequiredColumns, kRecordingColumns));
        }
        if (std::find(mOrder.begin(), mOrder.end(), column) != mOrder.end()) {
            FailAtColumn("the column " + std::string(name) + " is there already");
        }
        mOrder.push_back(column);
    });
    for (std::size_t column = 0; column < kRequiredColumns; ++column) {
        if (std::find(mOrder.begin(), mOrder.end(), column) == mOrder.end()) {
            FailAtLine("the column " + std::string(InfoOf(column).mName) + " is missing");
        }
    }
    const auto restart = std::find(mOrder.begin(), mOrder.end(), kRestartColumn);
    mRestartPosition = static_cast<std::size_t>(restart - mOrder.begin());
}

RecordingRow RecordingReader::ParseRow(std::string_view line)
{
    const auto cells = static_cast<std::size_t>(std::count(line.begin(), line.end(), ',')) + 1;
    if (cells != mOrder.size()) {
        FailAtLine("the row has " + std::to_string(cells) + " cells instead of " +
                   std::to_string(mOrder.size()));
    }
    mCells.clear();
    ForEachCell(line, [this](std::string_view cell) { mCells.push_back(cell); });
    // The pedometer goes on from the row before.
    RecordingRow row = mLast;
    row.mColumns = 0;
    // Before the counters, wherever it is: they may go down then.
    if (mRestartPosition < mCells.size()) {
        ParseCell(row, mRestartPosition);
    }
    for (std::size_t position = 0; position < mCells.size(); ++position) {
        if (position != mRestartPosition) {
            ParseCell(row, position);
        }
    }
    NoteFirstCounts(row);
    mLast = row;
    return row;
}

void RecordingReader::NoteFirstCounts(const RecordingRow &row)
{
    for (std::size_t field = 0; field < kPedometerCounters; ++field) {
        if (!mFirst[field] && (row.mToldPedometer & (1U << field)) != 0) {
            mFirst[field] = row.Pedometer(field);
        }
    }
}

void RecordingReader::ParseCell(RecordingRow &row, std::size_t position)
{
    const std::size_t column = mOrder[position];
    const std::string_view cell = mCells[position];
    mPosition = position + 1;
    mColumnName = InfoOf(column).mName;
    if (column == kTimeColumn) {
        row.mTimeMs = ParseTime(cell);
        return;
    }
    if (cell.empty()) {
        return;
    }
    const double value = ParseValue(column, cell);
    if (column == kRestartColumn) {
        Restart(row, static_cast<RestartMark>(value));
        return;
    }
    if (InfoOf(column).mItem == ContextItem::Pedometer) {
        SetPedometer(row, column - kFirstPedometerColumn, value);
    }
    row.Value(column) = value;
    row.mColumns = static_cast<std::uint16_t>(row.mColumns | 1U << column);
}

std::int64_t RecordingReader::ParseTime(std::string_view cell) const
{
    const auto time = ParseInteger<std::int64_t>(cell);
    if (!time || *time < 0 || *time > kMaxRecordingMs) {
        FailAtColumn(Quoted(cell) + " is not " + InfoOf(kTimeColumn).mRule.mText);
    }
    if (*time < mLast.mTimeMs) {
        FailAtColumn("the time goes back from " + std::to_string(mLast.mTimeMs) + " to " +
                     std::to_string(*time) + " ms");
    }
    return *time;
}

double RecordingReader::ParseValue(std::size_t column, std::string_view cell) const
{
    const CellRule &rule = InfoOf(column).mRule;
    std::optional<double> value;
    if (rule.mIsWhole) {
        // Not as a decimal number: "1.0" is none of the whole numbers of this format.
        if (const auto whole = ParseInteger<std::int64_t>(cell)) {
            value = static_cast<double>(*whole);
        }
    } else {
        value = ParseDecimal(cell);
    }
    if (!value || !rule.Allows(*value)) {
        FailAtColumn(Quoted(cell) + " is not " + rule.mText);
    }
    return *value;
}

void RecordingReader::SetPedometer(RecordingRow &row, std::size_t field, double value) const
{
    if (field < kPedometerCounters && value < row.Pedometer(field)) {
        FailAtColumn("the counter goes down to " + Printable(mCells[mPosition - 1]));
    }
    const unsigned bit = 1U << field;
    row.mToldPedometer = static_cast<std::uint8_t>(row.mToldPedometer | bit);
    row.mKnownPedometer = static_cast<std::uint8_t>(row.mKnownPedometer | bit);
    row.mForgottenPedometer = static_cast<std::uint8_t>(row.mForgottenPedometer & ~bit);
}

void RecordingReader::FailAtLine(const std::string &reason) const
{
    throw StartupError(mName + ": line " + std::to_string(mLine) + ": " + reason);
}

void RecordingReader::FailAtColumn(const std::string &reason) const
{
    std::string column = std::to_string(mPosition);
    if (!mColumnName.empty()) {
        column.append(" (").append(mColumnName).append(")");
    }
    throw StartupError(mName + ": line " + std::to_string(mLine) + ", column " + column + ": " +
                       reason);
}

/** Adds a recording that is played after those that are there. */
void Append(Recording &all, Recording added, const std::string &path)
{
    if (all.mRows.empty()) {
        all = std::move(added);
        return;
    }
    const std::int64_t beginMs = all.mLoopMs;
    if (added.mRows.back().mTimeMs > kMaxRecordingMs - beginMs) {
        throw StartupError(PrintablePath(path) + ": it begins at " + std::to_string(beginMs) +
                           " ms of the recordings that are played in turn, which would end after " +
                           std::to_string(kMaxRecordingMs) + " ms");
    }
    const RecordingRow before = all.mRows.back();
    const PedometerCounts first = added.mFirst;
    all.mRows.reserve(all.mRows.size() + added.mRows.size());
    for (RecordingRow &row : added.mRows) {
        row.mTimeMs += beginMs;
        GoOnFrom(before, first, row);
        all.mRows.push_back(row);
    }
    for (std::size_t field = 0; field < kPedometerCounters; ++field) {
        if (!all.mFirst[field]) {
            all.mFirst[field] = first[field];
        }
    }
    all.mLoopMs = beginMs + added.mLoopMs;
}

std::string ReadRecordingFile(const std::string &path, std::size_t maxBytes)
{
    std::string text;
    std::error_code failed;
    // Told before it is read: that takes the memory of a small device for nothing.
    const bool isTooLong = std::filesystem::is_regular_file(path, failed) &&
                           std::filesystem::file_size(path, failed) > maxBytes;
    if (const int error = isTooLong ? EFBIG : ReadWholeFile(path, maxBytes, text); error != 0) {
        const std::string reason = error != EFBIG ? ErrorText(error)
                                   : maxBytes < kMaxFileBytes
                                       ? "the recordings have more than 256 MiB together"
                                       : "it is longer than 256 MiB";
        throw StartupError("cannot read the recording " + PrintablePath(path) + ": " + reason);
    }
    return text;
}

/** Appends what a file has to what is there; returns the bytes of the file. */
std::size_t AppendFile(Recording &all, const std::string &path, std::size_t maxBytes)
{
    const char *reason = nullptr;
    try {
        const std::string text = ReadRecordingFile(path, maxBytes);
        Append(all, ParseRecording(path, text), path);
        return text.size();
    } catch (const std::bad_alloc &) {
        reason = "there is not enough memory for it";
    } catch (const std::length_error &) {
        // Where a pointer has 4 bytes.
        reason = "it has more rows than fit into memory";
    }
    throw StartupError("cannot read the recording " + PrintablePath(path) + ": " + reason);
}

} // namespace

Recording ParseRecording(const std::string &name, std::string_view text)
{
    return RecordingReader(name, text).Parse();
}

Recording LoadRecordings(const std::vector<std::string> &paths)
{
    if (paths.empty()) {
        throw StartupError("there is no recording to replay");
    }
    Recording all;
    std::size_t leftBytes = kMaxFileBytes;
    for (const std::string &path : paths) {
        leftBytes -= AppendFile(all, path, leftBytes);
    }
    return all;
}

} // namespace ParvanePlatform
