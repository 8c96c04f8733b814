#include "PreferenceFile.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <iterator>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "ErrorCode.h"
#include "Files.h"
#include "RuntimeLog.h"
#include "UniqueFd.h"

namespace ParvanePlatform {

namespace {

constexpr char kFileName[] = "/preferences.db";
constexpr int kBusyTimeoutMs = 250;
constexpr int kSchemaVersion = 1;

// Types as they are stored.
constexpr int kBooleanType = 0;
constexpr int kIntType = 1;
constexpr int kStringType = 2;

// Where the file system cannot do it the journal stays what it was, just as safe. The log begins anew,
// and takes back the space it has had, after that many pages: a few hundred kilobytes at most, unless
// another program keeps reading the same state of the database.
constexpr char kConfigureSql[] = "PRAGMA journal_mode=WAL;"
                                 "PRAGMA synchronous=FULL;"
                                 "PRAGMA wal_autocheckpoint=100;"
                                 "PRAGMA journal_size_limit=524288;";
constexpr char kCreateSql[] =
    "BEGIN IMMEDIATE;"
    "CREATE TABLE preferences(key TEXT PRIMARY KEY NOT NULL, type INTEGER NOT NULL,"
    " value NOT NULL) WITHOUT ROWID;"
    "PRAGMA user_version=1;"
    "COMMIT;";
constexpr char kLayoutSql[] = "SELECT user_version, (SELECT count(*) FROM sqlite_schema),"
                              " (SELECT count(*) FROM sqlite_schema WHERE name = 'preferences'),"
                              " (SELECT group_concat(name || ' ' || type || ' ' || pk, ', ')"
                              " FROM pragma_table_info('preferences')) FROM pragma_user_version";
constexpr char kLayout[] = "key TEXT 1, type INTEGER 0, value  0";
constexpr char kSelectSql[] = "SELECT type, value FROM preferences WHERE key = ?1";
constexpr char kSelectAllSql[] = "SELECT type, value, key FROM preferences";
constexpr char kUpsertSql[] = "INSERT INTO preferences(key, type, value) VALUES(?1, ?2, ?3)"
                              " ON CONFLICT(key) DO UPDATE SET type = ?2, value = ?3";

/** What belongs to a database, in the order in which it is set aside: itself at last. */
constexpr const char *kSuffixes[] = {"-wal", "-journal", "-shm", ""};

/** "20260131T123456Z". */
std::string TimeStamp(std::int64_t wallMs)
{
    const auto seconds = static_cast<std::time_t>(wallMs / 1000);
    std::tm utc = {};
    gmtime_r(&seconds, &utc);
    char text[64];
    return {text, std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &utc)};
}

bool IsFree(const std::string &path)
{
    return std::none_of(std::begin(kSuffixes), std::end(kSuffixes), [&path](const char *suffix) {
        return ::faccessat(AT_FDCWD, (path + suffix).c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
    });
}

/** Renames a file if there is one. Returns 0 or an errno value. */
int RenameIfThere(const std::string &from, const std::string &to)
{
    return ::rename(from.c_str(), to.c_str()) == 0 || errno == ENOENT ? 0 : errno;
}

/** Reads type and value of a row. @return 0 or -74 */
int ReadRow(const SqliteStatement &select, std::optional<PreferenceValue> &value)
{
    const std::int64_t type = select.Int(0);
    const int storage = select.Type(1);
    if (type == kStringType && storage == SQLITE_TEXT) {
        value = select.Text(1);
        return 0;
    }
    const std::int64_t number = select.Int(1);
    if (type == kBooleanType && storage == SQLITE_INTEGER && (number == 0 || number == 1)) {
        value = number == 1;
        return 0;
    }
    if (type == kIntType && storage == SQLITE_INTEGER &&
        number >= std::numeric_limits<std::int32_t>::min() &&
        number <= std::numeric_limits<std::int32_t>::max()) {
        value = static_cast<int>(number);
        return 0;
    }
    return ErrorCode::kBadContent;
}

} // namespace

PreferenceFile::PreferenceFile(const std::string &stateDirectory, const Clock &clock)
    : mClock(clock), mDirectory(stateDirectory), mPath(stateDirectory + kFileName)
{
    Parvane::SqliteUseLittleMemory();
}

int PreferenceFile::Read(std::string_view key, std::optional<PreferenceValue> &value)
{
    if (!Open()) {
        return ErrorCode::kInputOutput;
    }
    int code = 0;
    int result = SQLITE_NOMEM;
    // Twice when memory is short: what cannot be read counts as lost, and is soon written over.
    for (int attempt = 0; attempt < 2 && (result & 0xff) == SQLITE_NOMEM; ++attempt) {
        mSelect.BindText(1, key);
        result = mSelect.Step();
        if (result == SQLITE_ROW) {
            code = ReadRow(mSelect, value);
            // Only the database knows that there was no memory to fetch the value.
            const int error = sqlite3_errcode(mDatabase.get());
            result = (error & 0xff) == SQLITE_NOMEM ? error : result;
        }
        mSelect.Reset();
    }
    if (result != SQLITE_ROW && result != SQLITE_DONE) {
        OnFailure("cannot be read", result);
        return ErrorCode::kInputOutput;
    }
    return code;
}

int PreferenceFile::ReadAll(std::map<std::string, PreferenceValue> &values)
{
    if (!Open()) {
        return ErrorCode::kInputOutput;
    }
    SqliteStatement select;
    int result = select.Prepare(mDatabase.get(), kSelectAllSql);
    while (result == SQLITE_OK || result == SQLITE_ROW) {
        result = select.Step();
        std::optional<PreferenceValue> value;
        if (result == SQLITE_ROW && ReadRow(select, value) == 0) {
            values.insert_or_assign(select.Text(2), std::move(*value));
        }
    }
    if (result != SQLITE_DONE) {
        select.Close();
        OnFailure("cannot be read", result);
        return ErrorCode::kInputOutput;
    }
    return 0;
}

int PreferenceFile::Begin()
{
    const int result = SqliteExecute(mDatabase.get(), "BEGIN IMMEDIATE");
    mIsInTransaction = result == SQLITE_OK;
    return result;
}

int PreferenceFile::Write(std::string_view key, const PreferenceValue &value)
{
    mUpsert.BindText(1, key);
    if (const auto *boolean = std::get_if<bool>(&value)) {
        mUpsert.BindInt(2, kBooleanType);
        mUpsert.BindInt(3, *boolean ? 1 : 0);
    } else if (const auto *number = std::get_if<int>(&value)) {
        mUpsert.BindInt(2, kIntType);
        mUpsert.BindInt(3, *number);
    } else {
        mUpsert.BindInt(2, kStringType);
        mUpsert.BindText(3, std::get<std::string>(value));
    }
    const int result = mUpsert.Step();
    mUpsert.Reset();
    return result == SQLITE_DONE ? SQLITE_OK : result;
}

int PreferenceFile::Commit()
{
    const int result = SqliteExecute(mDatabase.get(), "COMMIT");
    if (result == SQLITE_OK) {
        mIsInTransaction = false;
        mLastReport.clear();
    }
    return result;
}

void PreferenceFile::Rollback() noexcept
{
    if (mDatabase && sqlite3_get_autocommit(mDatabase.get()) == 0) {
        SqliteExecute(mDatabase.get(), "ROLLBACK");
    }
    mIsInTransaction = false;
}

void PreferenceFile::OnFailure(const char *what, int result)
{
    if (IsSqliteCorruption(result)) {
        CloseUntouched();
        SetAside(sqlite3_errstr(result));
        return;
    }
    Report(what, SqliteErrorText(mDatabase.get(), result));
    if (sqlite3_get_autocommit(mDatabase.get()) != 0) {
        // Some errors end the transaction, also when it was a read that met them.
        mIsInTransaction = false;
    }
}

bool PreferenceFile::Open()
{
    // Twice at most: a damaged file is set aside, and then there is a new one.
    for (int attempt = 0; !mDatabase && attempt < 2; ++attempt) {
        const Finding finding = OpenFile();
        if (finding.mProblem.empty()) {
            return true;
        }
        CloseUntouched();
        if (finding.mMustStay) {
            Report("cannot be opened", finding.mProblem);
            return false;
        }
        if (!SetAside(finding.mProblem)) {
            return false;
        }
    }
    return mDatabase != nullptr;
}

bool PreferenceFile::OpenToWrite()
{
    if (mDatabase && sqlite3_db_readonly(mDatabase.get(), "main") == 1) {
        // A connection stays as read-only as it was opened, whatever becomes of the file.
        Close();
    }
    return Open();
}

PreferenceFile::Finding PreferenceFile::OpenFile()
{
    using Step = Finding (PreferenceFile::*)();
    // Nothing is written before Prepare(), which is the first to be sure whose file it is.
    constexpr Step kSteps[] = {&PreferenceFile::InspectFiles, &PreferenceFile::OpenDatabase,
                               &PreferenceFile::CheckPages,   &PreferenceFile::InspectLayout,
                               &PreferenceFile::CheckEnd,     &PreferenceFile::Prepare};
    for (const Step step : kSteps) {
        if (Finding finding = (this->*step)(); !finding.mProblem.empty()) {
            return finding;
        }
    }
    return {};
}

PreferenceFile::Finding PreferenceFile::InspectFiles()
{
    struct stat status = {};
    const bool isThere = ::lstat(mPath.c_str(), &status) == 0;
    if (isThere && !S_ISREG(status.st_mode)) {
        return {"it is not a regular file", true};
    }
    if (HasLog() && (!isThere || status.st_size == 0)) {
        // SQLite would delete the log of an empty database.
        return {"it is empty or gone, and its log is not", false};
    }
    return {};
}

PreferenceFile::Finding PreferenceFile::OpenDatabase()
{
    // Made here and not by SQLite, so that only the owner can read it, whatever the umask; SQLite
    // gives its other files the same mode.
    const Parvane::UniqueFd made(
        ::open(mPath.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    const int makeError = !made && errno != EEXIST ? errno : 0;
    if (made) {
        // SQLite makes durable what is in the file, and that the log is there, not that this is.
        SyncDirectory(mDirectory);
    }
    sqlite3 *database = nullptr;
    const int result = sqlite3_open_v2(
        mPath.c_str(), &database,
        SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE, nullptr);
    mDatabase.reset(database);
    if (result != SQLITE_OK) {
        return {makeError != 0 ? ErrorText(makeError) : SqliteErrorText(database, result), true};
    }
    sqlite3_busy_timeout(database, kBusyTimeoutMs);
    return {};
}

PreferenceFile::Finding PreferenceFile::CheckPages()
{
    SqliteStatement statement;
    int result = statement.First(mDatabase.get(), "PRAGMA quick_check(1)");
    if (result == SQLITE_OK && statement.Text(0) != "ok") {
        // A page for which there was no memory is told like a damaged one: a second look tells them
        // apart. While memory stays short, that look fails.
        result = statement.First(mDatabase.get(), "PRAGMA quick_check(1)");
    }
    if (result != SQLITE_OK) {
        return FindingOf(result);
    }
    const std::string answer = statement.Text(0);
    return {answer == "ok" ? std::string() : answer, false};
}

PreferenceFile::Finding PreferenceFile::InspectLayout()
{
    SqliteStatement statement;
    if (const int result = statement.First(mDatabase.get(), kLayoutSql); result != SQLITE_OK) {
        return FindingOf(result);
    }
    const std::int64_t version = statement.Int(0);
    mIsNew = version == 0 && statement.Int(1) == 0;
    if (mIsNew) {
        return {};
    }
    if (version != kSchemaVersion) {
        return {"its layout has version " + std::to_string(version) + ", this program knows " +
                    std::to_string(kSchemaVersion),
                version > kSchemaVersion && statement.Int(2) != 0};
    }
    if (statement.Text(3) != kLayout) {
        return {"its layout is not that of preferences", false};
    }
    return {};
}

PreferenceFile::Finding PreferenceFile::CheckEnd()
{
    SqliteStatement statement;
    int result = statement.First(mDatabase.get(), "PRAGMA page_size");
    if (result != SQLITE_OK) {
        return FindingOf(result);
    }
    const std::int64_t pageBytes = statement.Int(0);
    statement.Close();
    // SQLite reads the bytes that a last page lacks as 0.
    const auto isCutOff = [this, pageBytes] {
        struct stat status = {};
        return ::stat(mPath.c_str(), &status) == 0 && status.st_size % pageBytes != 0;
    };
    if (isCutOff() && HasLog()) {
        // A process that was killed while it played the log into the file. The log has the whole page.
        result = SqliteExecute(mDatabase.get(), "PRAGMA wal_checkpoint");
        if (result != SQLITE_OK) {
            return FindingOf(result);
        }
    }
    return {isCutOff() ? "its last page is cut off" : "", false};
}

PreferenceFile::Finding PreferenceFile::Prepare()
{
    int result = SqliteExecute(mDatabase.get(), kConfigureSql);
    if (result == SQLITE_OK && mIsNew) {
        result = SqliteExecute(mDatabase.get(), kCreateSql);
    }
    if (result == SQLITE_OK) {
        result = mSelect.Prepare(mDatabase.get(), kSelectSql);
    }
    if (result == SQLITE_OK) {
        result = mUpsert.Prepare(mDatabase.get(), kUpsertSql);
    }
    return FindingOf(result);
}

PreferenceFile::Finding PreferenceFile::FindingOf(int result) const
{
    if (result == SQLITE_OK) {
        return {};
    }
    if (IsSqliteCorruption(result)) {
        return {sqlite3_errstr(result), false};
    }
    return {SqliteErrorText(mDatabase.get(), result), true};
}

bool PreferenceFile::HasLog() const
{
    struct stat status = {};
    return ::lstat((mPath + "-wal").c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           status.st_size > 0;
}

void PreferenceFile::Close()
{
    mIsInTransaction = false;
    mSelect.Close();
    mUpsert.Close();
    mDatabase.reset();
}

void PreferenceFile::CloseUntouched()
{
    if (mDatabase) {
        // The log may be what somebody saves the values from: closing must not play and delete it.
        sqlite3_db_config(mDatabase.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    }
    Close();
}

std::string PreferenceFile::FreeName() const
{
    const std::string stem = mPath + ".corrupt-" + TimeStamp(mClock.WallMs());
    std::string name = stem;
    for (unsigned number = 1; !IsFree(name); ++number) {
        name = stem + '-' + std::to_string(number);
    }
    return name;
}

bool PreferenceFile::SetAside(const std::string &problem)
{
    const std::string name = FreeName();
    // The database last: a log that stayed behind alone would be played into the new one.
    int error = 0;
    for (const char *suffix : kSuffixes) {
        error = error == 0 ? RenameIfThere(mPath + suffix, name + suffix) : error;
    }
    if (error != 0) {
        Report("is damaged and cannot be set aside", ErrorText(error));
        return false;
    }
    SyncDirectory(mDirectory);
    LogError("%s is damaged (%s): set aside as %s, the preferences start empty", mPath.c_str(),
             problem.c_str(), name.c_str());
    return true;
}

void PreferenceFile::Report(const char *what, const std::string &reason)
{
    const std::string report = mPath + ' ' + what + ": " + reason;
    if (report != mLastReport) {
        LogError("%s", report.c_str());
        mLastReport = report;
    }
}

} // namespace ParvanePlatform
