#include "PreferenceStore.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <limits>
#include <unistd.h>
#include <utility>

#include "base/ErrorCode.h"
#include "base/Files.h"
#include "base/RuntimeLog.h"
#include "base/UniqueFd.h"

namespace ParvanePlatform {

namespace {

constexpr char kFileName[] = "/preferences.db";
constexpr int kBusyTimeoutMs = 250;
constexpr std::int64_t kFirstRetryUs = 1'000'000;
constexpr std::int64_t kLastRetryUs = 60'000'000;
constexpr int kSchemaVersion = 1;

// Types as they are stored.
constexpr int kBooleanType = 0;
constexpr int kIntType = 1;
constexpr int kStringType = 2;

constexpr char kCreateSql[] =
    "BEGIN IMMEDIATE;"
    "CREATE TABLE preferences(key TEXT PRIMARY KEY NOT NULL, type INTEGER NOT NULL,"
    " value NOT NULL) WITHOUT ROWID;"
    "PRAGMA user_version=1;"
    "COMMIT;";
constexpr char kSelectSql[] = "SELECT type, value FROM preferences WHERE key = ?1";
constexpr char kSelectAllSql[] = "SELECT type, value, key FROM preferences";
constexpr char kUpsertSql[] = "INSERT INTO preferences(key, type, value) VALUES(?1, ?2, ?3)"
                              " ON CONFLICT(key) DO UPDATE SET type = ?2, value = ?3";

bool IsValidKey(std::string_view key)
{
    return !key.empty() && key.size() <= PreferenceStore::kMaxKeyBytes;
}

/** "20260131T123456Z". */
std::string TimeStamp(std::int64_t wallMs)
{
    using std::chrono::floor;
    const std::chrono::sys_time<std::chrono::milliseconds> now{std::chrono::milliseconds(wallMs)};
    const auto day = floor<std::chrono::days>(now);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss time(floor<std::chrono::seconds>(now - day));
    char text[64];
    std::snprintf(text, sizeof text, "%04d%02u%02uT%02d%02d%02dZ", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()));
    return text;
}

bool Exists(const std::string &path)
{
    return ::faccessat(AT_FDCWD, path.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

bool IsFree(const std::string &path)
{
    return !Exists(path) && !Exists(path + "-wal") && !Exists(path + "-shm");
}

/** Renames a file if there is one. Returns 0 or an errno value. */
int RenameIfThere(const std::string &from, const std::string &to)
{
    return ::rename(from.c_str(), to.c_str()) == 0 || errno == ENOENT ? 0 : errno;
}

} // namespace

PreferenceStore::PreferenceStore(const std::string &stateDirectory, const Clock &clock)
    : mClock(clock), mDirectory(stateDirectory), mPath(stateDirectory + kFileName)
{
    Open();
    mCommitSource = LoopSource::BeforeSleep([this] {
        if (mInTransaction) {
            Commit();
        }
    });
}

PreferenceStore::~PreferenceStore()
{
    mCommitSource.Remove();
    try {
        if (!Commit()) {
            Retry();
        }
        mRetryTimer.Disarm();
        for (const auto &[key, value] : mPending) {
            LogError("the last value of the preference %s is lost", key.c_str());
        }
        Close();
    } catch (const std::exception &failure) {
        LogError("preferences: %s", failure.what());
    }
}

int PreferenceStore::Get(std::string_view key, bool &value)
{
    return GetTyped(key, value);
}

int PreferenceStore::Get(std::string_view key, int &value)
{
    return GetTyped(key, value);
}

int PreferenceStore::Get(std::string_view key, std::string &value)
{
    return GetTyped(key, value);
}

template <typename Value>
int PreferenceStore::GetTyped(std::string_view key, Value &value)
{
    std::optional<PreferenceValue> found;
    if (const int result = Lookup(key, found); result != 0) {
        return result;
    }
    if (!found) {
        return ErrorCode::kNoSuchKey;
    }
    auto *typed = std::get_if<Value>(&*found);
    if (typed == nullptr) {
        return ErrorCode::kInvalidParameter;
    }
    value = std::move(*typed);
    return 0;
}

int PreferenceStore::Exists(std::string_view key, bool &exists)
{
    std::optional<PreferenceValue> found;
    const int result = Lookup(key, found);
    if (result == 0 || result == ErrorCode::kBadContent) {
        exists = found.has_value() || result != 0;
        return 0;
    }
    return result;
}

int PreferenceStore::GetAll(std::map<std::string, PreferenceValue> &values)
{
    if (!Open()) {
        return ErrorCode::kInputOutput;
    }
    SqliteStatement select;
    int result = select.Prepare(mDatabase.get(), kSelectAllSql);
    std::map<std::string, PreferenceValue> all;
    while (result == SQLITE_OK || result == SQLITE_ROW) {
        result = select.Step();
        std::optional<PreferenceValue> value;
        if (result == SQLITE_ROW && ReadRow(select, value) == 0) {
            all.insert_or_assign(select.Text(2), std::move(*value));
        }
    }
    if (result != SQLITE_DONE) {
        select.Close();
        OnFailure("cannot be read", result);
        return ErrorCode::kInputOutput;
    }
    for (const auto &[key, value] : mPending) {
        all.insert_or_assign(key, value);
    }
    values = std::move(all);
    return 0;
}

int PreferenceStore::Set(std::string_view key, PreferenceValue value)
{
    if (!IsValidKey(key)) {
        return ErrorCode::kInvalidParameter;
    }
    int result = TryToSet(key, value);
    if (IsSqliteCorruption(result)) {
        // The damaged file has been set aside: the new one takes the value.
        result = TryToSet(key, value);
    }
    if (result != SQLITE_OK) {
        ScheduleRetry();
        return ErrorCode::kInputOutput;
    }
    mPending.insert_or_assign(std::string(key), std::move(value));
    return 0;
}

bool PreferenceStore::Commit()
{
    if (!mInTransaction) {
        return mPending.empty();
    }
    if (const int result = SqliteExecute(mDatabase.get(), "COMMIT"); result != SQLITE_OK) {
        OnFailure("cannot be saved", result);
        if (mDatabase && sqlite3_get_autocommit(mDatabase.get()) == 0) {
            SqliteExecute(mDatabase.get(), "ROLLBACK");
        }
        mInTransaction = false;
        ScheduleRetry();
        return false;
    }
    mInTransaction = false;
    mPending.clear();
    mRetryDelayUs = 0;
    mRetryTimer.Disarm();
    mLastReport.clear();
    return true;
}

int PreferenceStore::Lookup(std::string_view key, std::optional<PreferenceValue> &value)
{
    if (!IsValidKey(key)) {
        return ErrorCode::kInvalidParameter;
    }
    if (const auto pending = mPending.find(key); pending != mPending.end()) {
        value = pending->second;
        return 0;
    }
    if (!Open()) {
        return ErrorCode::kInputOutput;
    }
    mSelect.BindText(1, key);
    const int result = mSelect.Step();
    int code = 0;
    if (result == SQLITE_ROW) {
        code = ReadRow(mSelect, value);
    }
    mSelect.Reset();
    if (result != SQLITE_ROW && result != SQLITE_DONE) {
        OnFailure("cannot be read", result);
        return ErrorCode::kInputOutput;
    }
    return code;
}

int PreferenceStore::ReadRow(const SqliteStatement &select, std::optional<PreferenceValue> &value)
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

int PreferenceStore::WriteRow(std::string_view key, const PreferenceValue &value)
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

int PreferenceStore::TryToSet(std::string_view key, const PreferenceValue &value)
{
    if (!Open()) {
        return SQLITE_CANTOPEN;
    }
    int result = mInTransaction ? SQLITE_OK : Begin();
    if (result == SQLITE_OK) {
        result = WriteRow(key, value);
    }
    if (result != SQLITE_OK) {
        OnFailure("cannot be written", result);
        // Some errors end the transaction; what it held is still pending.
        if (mDatabase && sqlite3_get_autocommit(mDatabase.get()) != 0) {
            mInTransaction = false;
        }
    }
    return result;
}

int PreferenceStore::Begin()
{
    int result = SqliteExecute(mDatabase.get(), "BEGIN IMMEDIATE");
    if (result != SQLITE_OK) {
        return result;
    }
    for (const auto &[key, value] : mPending) {
        result = WriteRow(key, value);
        if (result != SQLITE_OK) {
            SqliteExecute(mDatabase.get(), "ROLLBACK");
            return result;
        }
    }
    mInTransaction = true;
    return SQLITE_OK;
}

void PreferenceStore::OnFailure(const char *what, int result)
{
    if (IsSqliteCorruption(result)) {
        CloseDamaged();
        SetAside(sqlite3_errstr(result));
        return;
    }
    Report(what, SqliteErrorText(mDatabase.get(), result));
}

void PreferenceStore::Retry()
{
    if (mPending.empty()) {
        return;
    }
    if (!Open()) {
        ScheduleRetry();
        return;
    }
    if (const int result = mInTransaction ? SQLITE_OK : Begin(); result != SQLITE_OK) {
        OnFailure("cannot be written", result);
        ScheduleRetry();
        return;
    }
    Commit();
}

void PreferenceStore::ScheduleRetry()
{
    if (mInTransaction || mPending.empty()) {
        return;
    }
    mRetryDelayUs = std::clamp(mRetryDelayUs * 2, kFirstRetryUs, kLastRetryUs);
    mRetryTimer.Arm(mClock.MonotonicUs() + mRetryDelayUs, [this] { Retry(); });
}

bool PreferenceStore::Open()
{
    if (mDatabase) {
        return true;
    }
    // Twice at most: a damaged file is set aside, and then there is a new one.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (OpenFile() != SQLITE_OK) {
            return false;
        }
        std::string problem;
        const int result = Prepare(problem);
        if (result == SQLITE_OK && problem.empty()) {
            return true;
        }
        if (problem.empty() && !IsSqliteCorruption(result)) {
            Report("cannot be opened", SqliteErrorText(mDatabase.get(), result));
            Close();
            return false;
        }
        CloseDamaged();
        if (!SetAside(problem.empty() ? sqlite3_errstr(result) : problem)) {
            return false;
        }
    }
    return false;
}

int PreferenceStore::OpenFile()
{
    // Made here and not by SQLite, so that only the owner can read it, whatever the umask; SQLite
    // gives its other files the same mode.
    const UniqueFd made(
        ::open(mPath.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    const int makeError = !made && errno != EEXIST ? errno : 0;
    sqlite3 *database = nullptr;
    const int result = sqlite3_open_v2(
        mPath.c_str(), &database,
        SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE, nullptr);
    mDatabase.reset(database);
    if (result != SQLITE_OK) {
        Report("cannot be opened",
               makeError != 0 ? ErrorText(makeError) : SqliteErrorText(database, result));
        Close();
        return result;
    }
    sqlite3_busy_timeout(database, kBusyTimeoutMs);
    return SQLITE_OK;
}

int PreferenceStore::Prepare(std::string &problem)
{
    bool isNew = false;
    int result = Inspect(problem, isNew);
    if (result == SQLITE_OK && problem.empty()) {
        result = Configure(isNew);
    }
    if (result == SQLITE_OK && problem.empty()) {
        result = mSelect.Prepare(mDatabase.get(), kSelectSql);
    }
    if (result == SQLITE_OK && problem.empty()) {
        result = mUpsert.Prepare(mDatabase.get(), kUpsertSql);
    }
    return result;
}

int PreferenceStore::Inspect(std::string &problem, bool &isNew)
{
    SqliteStatement statement;
    int result = statement.Prepare(mDatabase.get(), "PRAGMA quick_check(1)");
    if (result != SQLITE_OK) {
        return result;
    }
    result = statement.Step();
    if (result != SQLITE_ROW) {
        return result;
    }
    if (const std::string answer = statement.Text(0); answer != "ok") {
        problem = answer;
        return SQLITE_OK;
    }
    statement.Close();

    result = statement.Prepare(mDatabase.get(),
                               "SELECT user_version, (SELECT count(*) FROM sqlite_schema)"
                               " FROM pragma_user_version");
    if (result != SQLITE_OK) {
        return result;
    }
    result = statement.Step();
    if (result != SQLITE_ROW) {
        return result;
    }
    const std::int64_t version = statement.Int(0);
    isNew = version == 0 && statement.Int(1) == 0;
    statement.Close();
    if (isNew) {
        return SQLITE_OK;
    }
    if (version != kSchemaVersion) {
        problem = "its layout has version " + std::to_string(version) + ", this program knows " +
                  std::to_string(kSchemaVersion);
        return SQLITE_OK;
    }
    return InspectColumns(problem);
}

int PreferenceStore::InspectColumns(std::string &problem)
{
    SqliteStatement statement;
    int result = statement.Prepare(mDatabase.get(),
                                   "SELECT group_concat(name || ' ' || type || ' ' || pk, ', ')"
                                   " FROM pragma_table_info('preferences')");
    if (result != SQLITE_OK) {
        return result;
    }
    result = statement.Step();
    if (result != SQLITE_ROW) {
        return result;
    }
    if (statement.Text(0) != "key TEXT 1, type INTEGER 0, value  0") {
        problem = "its layout is not that of preferences";
    }
    return SQLITE_OK;
}

int PreferenceStore::Configure(bool isNew)
{
    // Where the file system cannot do it the journal stays what it was, just as safe.
    int result = SqliteExecute(mDatabase.get(), "PRAGMA journal_mode=WAL");
    if (result == SQLITE_OK) {
        result = SqliteExecute(mDatabase.get(), "PRAGMA synchronous=FULL");
    }
    if (result == SQLITE_OK && isNew) {
        result = SqliteExecute(mDatabase.get(), kCreateSql);
    }
    return result;
}

void PreferenceStore::Close()
{
    mInTransaction = false;
    mSelect.Close();
    mUpsert.Close();
    mDatabase.reset();
}

void PreferenceStore::CloseDamaged()
{
    if (mDatabase) {
        // The log may be what somebody saves the values from: closing must not delete it.
        sqlite3_db_config(mDatabase.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    }
    Close();
}

bool PreferenceStore::SetAside(const std::string &problem)
{
    const std::string stem = mPath + ".corrupt-" + TimeStamp(mClock.WallMs());
    std::string name = stem;
    for (unsigned number = 1; !IsFree(name); ++number) {
        name = stem + '-' + std::to_string(number);
    }
    // The database last: a log that stayed behind alone would be played into the new one.
    int error = RenameIfThere(mPath + "-wal", name + "-wal");
    if (error == 0) {
        error = RenameIfThere(mPath + "-shm", name + "-shm");
    }
    if (error == 0) {
        error = RenameIfThere(mPath, name);
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

void PreferenceStore::Report(const char *what, const std::string &reason)
{
    const std::string report = mPath + ' ' + what + ": " + reason;
    if (report != mLastReport) {
        LogError("%s", report.c_str());
        mLastReport = report;
    }
}

} // namespace ParvanePlatform
