#include "PreferenceStore.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <iterator>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "ErrorCode.h"
#include "Files.h"
#include "RuntimeLog.h"
#include "SqliteLog.h"
#include "UniqueFd.h"

namespace ParvanePlatform {

namespace {

constexpr char kFileName[] = "/preferences.db";
constexpr int kBusyTimeoutMs = 250;
constexpr std::int64_t kFirstRetryUs = 1'000'000;
constexpr std::int64_t kLastRetryUs = 60'000'000;
constexpr int kSchemaVersion = 1;
/** Far more than a log ever holds; a longer one is SQLite's own business. */
constexpr std::size_t kMaxLogBytes = 64U << 20U;

// Types as they are stored.
constexpr int kBooleanType = 0;
constexpr int kIntType = 1;
constexpr int kStringType = 2;

// The log begins anew, and takes back the space it has had, after that many pages: a few hundred
// kilobytes at most, unless another program keeps reading the same state of the database.
constexpr char kConfigureSql[] = "PRAGMA synchronous=FULL;"
                                 "PRAGMA wal_autocheckpoint=100;"
                                 "PRAGMA journal_size_limit=524288;";
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

/** What belongs to a database, in the order in which it is set aside: itself at last. */
constexpr const char *kSuffixes[] = {"-wal", "-journal", "-shm", ""};

bool IsFree(const std::string &path)
{
    return std::none_of(std::begin(kSuffixes), std::end(kSuffixes),
                        [&path](const char *suffix) { return Exists(path + suffix); });
}

bool HasTransactions(SqliteLogState log)
{
    return log == SqliteLogState::Sound || log == SqliteLogState::Damaged;
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
    SqliteUseLittleMemory();
    Open();
    mTurnSource = LoopSource::BeforeSleep([this] { EndTurn(); });
}

PreferenceStore::~PreferenceStore()
{
    mTurnSource.Remove();
    try {
        Commit();
        mRetryTimer.Disarm();
        for (const auto &[key, value] : mUnsaved) {
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
    for (const Writes *writes : {&mUnsaved, &mTurn}) {
        for (const auto &[key, value] : *writes) {
            all.insert_or_assign(key, value);
        }
    }
    values = std::move(all);
    return 0;
}

int PreferenceStore::Set(std::string_view key, PreferenceValue value)
{
    if (!IsValidKey(key)) {
        return ErrorCode::kInvalidParameter;
    }
    if (mTurnIsTakenBack) {
        // Without those before it, it would be half of what the turn was to write.
        return ErrorCode::kInputOutput;
    }
    try {
        int result = TryToSet(key, value);
        if (IsSqliteCorruption(result)) {
            // The damaged file has been set aside: the new one takes the value.
            result = TryToSet(key, value);
        }
        if (result == SQLITE_OK) {
            mTurn.insert_or_assign(std::string(key), std::move(value));
            return 0;
        }
    } catch (...) {
        TakeTurnBack();
        throw;
    }
    TakeTurnBack();
    return ErrorCode::kInputOutput;
}

void PreferenceStore::TakeTurnBack() noexcept
{
    Rollback();
    mTurn.clear();
    mTurnIsTakenBack = true;
    mTurnHasFailed = true;
}

bool PreferenceStore::SecureTurn()
{
    if (mTurnHasFailed) {
        return false;
    }
    return mTurn.empty() || Save();
}

bool PreferenceStore::Commit()
{
    return (mTurn.empty() && mUnsaved.empty()) || Save();
}

void PreferenceStore::EndTurn()
{
    if (!mTurn.empty()) {
        Save();
    }
    mTurnHasFailed = false;
    mTurnIsTakenBack = false;
}

bool PreferenceStore::Save()
{
    if (!OpenToWrite()) {
        KeepForLater();
        return false;
    }
    const char *what = "cannot be written";
    int result = mInTransaction ? SQLITE_OK : Begin();
    if (result == SQLITE_OK) {
        what = "cannot be saved";
        result = SqliteExecute(mDatabase.get(), "COMMIT");
    }
    if (result != SQLITE_OK) {
        OnFailure(what, result);
        KeepForLater();
        return false;
    }
    mInTransaction = false;
    mUnsaved.clear();
    mTurn.clear();
    mRetryDelayUs = 0;
    mRetryTimer.Disarm();
    mLastReport.clear();
    return true;
}

void PreferenceStore::Rollback() noexcept
{
    if (mDatabase && sqlite3_get_autocommit(mDatabase.get()) == 0) {
        SqliteExecute(mDatabase.get(), "ROLLBACK");
    }
    mInTransaction = false;
}

void PreferenceStore::KeepForLater()
{
    Rollback();
    mTurnHasFailed = mTurnHasFailed || !mTurn.empty();
    mTurn.merge(mUnsaved);
    mUnsaved = std::exchange(mTurn, {});
    mRetryDelayUs = std::clamp(mRetryDelayUs * 2, kFirstRetryUs, kLastRetryUs);
    mRetryTimer.Arm(mClock.MonotonicUs() + mRetryDelayUs, [this] { Commit(); });
}

int PreferenceStore::Lookup(std::string_view key, std::optional<PreferenceValue> &value)
{
    if (!IsValidKey(key)) {
        return ErrorCode::kInvalidParameter;
    }
    for (const Writes *writes : {&mTurn, &mUnsaved}) {
        if (const auto found = writes->find(key); found != writes->end()) {
            value = found->second;
            return 0;
        }
    }
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
            // A value that cannot be fetched for want of memory tells of it only so.
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
    if (!OpenToWrite()) {
        return SQLITE_CANTOPEN;
    }
    int result = mInTransaction ? SQLITE_OK : Begin();
    if (result == SQLITE_OK) {
        result = WriteRow(key, value);
    }
    if (result != SQLITE_OK) {
        OnFailure("cannot be written", result);
    }
    return result;
}

int PreferenceStore::Begin()
{
    int result = SqliteExecute(mDatabase.get(), "BEGIN IMMEDIATE");
    if (result != SQLITE_OK) {
        return result;
    }
    // Older ones first. This turn has some already when the file was set aside in the middle of it.
    for (const Writes *writes : {&mUnsaved, &mTurn}) {
        for (const auto &[key, value] : *writes) {
            result = WriteRow(key, value);
            if (result != SQLITE_OK) {
                Rollback();
                return result;
            }
        }
    }
    mInTransaction = true;
    return SQLITE_OK;
}

void PreferenceStore::OnFailure(const char *what, int result)
{
    if (IsSqliteCorruption(result)) {
        CloseUntouched();
        SetAside(sqlite3_errstr(result));
        return;
    }
    Report(what, SqliteErrorText(mDatabase.get(), result));
    if (sqlite3_get_autocommit(mDatabase.get()) != 0) {
        // Some errors, of a read too, end the transaction. What was in it is in memory still: it
        // begins again with the next write, or when the turn is saved.
        mInTransaction = false;
    }
}

bool PreferenceStore::Open()
{
    if (mDatabase) {
        return true;
    }
    // Twice at most: a damaged file is set aside, and then there is a new one.
    for (int attempt = 0; attempt < 2; ++attempt) {
        const Finding finding = OpenFiles();
        if (finding.mProblem.empty()) {
            mIsLogKept = false;
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
    return false;
}

PreferenceStore::Finding PreferenceStore::OpenFiles()
{
    Finding finding;
    InspectFiles(finding);
    if (finding.mProblem.empty()) {
        OpenDatabase(finding);
    }
    if (!finding.mProblem.empty()) {
        return finding;
    }
    if (const int result = Prepare(finding); result != SQLITE_OK) {
        finding.mMustStay = !IsSqliteCorruption(result);
        finding.mProblem =
            finding.mMustStay ? SqliteErrorText(mDatabase.get(), result) : sqlite3_errstr(result);
    }
    return finding;
}

bool PreferenceStore::OpenToWrite()
{
    if (mDatabase && sqlite3_db_readonly(mDatabase.get(), "main") == 1) {
        // A connection stays as read-only as it was opened, whatever becomes of the file.
        Close();
    }
    return Open();
}

void PreferenceStore::InspectFiles(Finding &finding)
{
    struct stat status = {};
    const bool isThere = ::lstat(mPath.c_str(), &status) == 0;
    if (isThere && !S_ISREG(status.st_mode)) {
        finding = {"it is not a regular file", true};
        return;
    }
    std::string log;
    // If it cannot be read, SQLite will say why.
    ReadWholeFile(LogPath(), kMaxLogBytes, log);
    mLogState = InspectSqliteLog(log);
    if (HasTransactions(mLogState) && (!isThere || status.st_size == 0)) {
        // SQLite would delete the log of an empty database.
        finding.mProblem = "it is empty or gone, and its log is not";
    }
}

int PreferenceStore::KeepDamagedLog()
{
    const bool isDamaged =
        mLogState == SqliteLogState::NoLog || mLogState == SqliteLogState::Damaged;
    if (!isDamaged || mIsLogKept) {
        return 0;
    }
    const std::string name = FreeName() + "-wal";
    std::string log;
    int error = ReadWholeFile(LogPath(), kMaxLogBytes, log);
    if (error == 0) {
        error = WriteFileAtomically(name, log, Durability::Disk);
    }
    if (error != 0) {
        return error;
    }
    mIsLogKept = true;
    LogError("%s is damaged: a copy is kept as %s, the preferences are those before the damage",
             LogPath().c_str(), name.c_str());
    return 0;
}

void PreferenceStore::OpenDatabase(Finding &finding)
{
    // Made here and not by SQLite, so that only the owner can read it, whatever the umask; SQLite
    // gives its other files the same mode.
    const UniqueFd made(
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
        finding = {makeError != 0 ? ErrorText(makeError) : SqliteErrorText(database, result), true};
        return;
    }
    sqlite3_busy_timeout(database, kBusyTimeoutMs);
}

int PreferenceStore::Prepare(Finding &finding)
{
    bool isNew = false;
    int result = CheckPages(finding);
    if (result == SQLITE_OK && finding.mProblem.empty()) {
        result = InspectLayout(finding, isNew);
    }
    if (result != SQLITE_OK || !finding.mProblem.empty()) {
        return result;
    }
    // From here on SQLite may write over what it has found no use for.
    if (const int error = KeepDamagedLog(); error != 0) {
        finding = {"its damaged log cannot be copied: " + ErrorText(error), true};
        return SQLITE_OK;
    }
    result = Configure(isNew);
    if (result == SQLITE_OK) {
        result = mSelect.Prepare(mDatabase.get(), kSelectSql);
    }
    if (result == SQLITE_OK) {
        result = mUpsert.Prepare(mDatabase.get(), kUpsertSql);
    }
    return result;
}

int PreferenceStore::CheckPages(Finding &finding)
{
    SqliteStatement statement;
    int result = FirstRow(statement, "PRAGMA quick_check(1)");
    if (result != SQLITE_OK) {
        return result;
    }
    if (statement.Text(0) != "ok") {
        // A page for which there was no memory is told like a damaged one: a second look tells them
        // apart. While memory stays short, that look fails.
        result = FirstRow(statement, "PRAGMA quick_check(1)");
        if (result != SQLITE_OK) {
            return result;
        }
    }
    if (const std::string answer = statement.Text(0); answer != "ok") {
        finding.mProblem = answer;
        return SQLITE_OK;
    }
    result = FirstRow(statement, "PRAGMA page_size");
    if (result != SQLITE_OK) {
        return result;
    }
    // SQLite reads the bytes that a last page lacks as 0. Only a log may hold that page's content.
    struct stat status = {};
    const std::int64_t pageBytes = statement.Int(0);
    if (!HasTransactions(mLogState) && ::stat(mPath.c_str(), &status) == 0 &&
        status.st_size % pageBytes != 0) {
        finding.mProblem = "its last page is cut off";
    }
    return SQLITE_OK;
}

int PreferenceStore::InspectLayout(Finding &finding, bool &isNew)
{
    SqliteStatement statement;
    const int result =
        FirstRow(statement, "SELECT user_version, (SELECT count(*) FROM sqlite_schema),"
                            " (SELECT count(*) FROM sqlite_schema WHERE name = 'preferences')"
                            " FROM pragma_user_version");
    if (result != SQLITE_OK) {
        return result;
    }
    const std::int64_t version = statement.Int(0);
    isNew = version == 0 && statement.Int(1) == 0;
    if (isNew) {
        return SQLITE_OK;
    }
    if (version != kSchemaVersion) {
        finding.mProblem = "its layout has version " + std::to_string(version) +
                           ", this program knows " + std::to_string(kSchemaVersion);
        finding.mMustStay = version > kSchemaVersion && statement.Int(2) != 0;
        return SQLITE_OK;
    }
    return InspectColumns(finding.mProblem);
}

int PreferenceStore::FirstRow(SqliteStatement &statement, const char *sql)
{
    statement.Close();
    if (const int result = statement.Prepare(mDatabase.get(), sql); result != SQLITE_OK) {
        return result;
    }
    const int result = statement.Step();
    return result == SQLITE_ROW ? SQLITE_OK : result;
}

int PreferenceStore::InspectColumns(std::string &problem)
{
    SqliteStatement statement;
    const int result = FirstRow(statement, "SELECT group_concat(name || ' ' || type || ' ' || pk,"
                                           " ', ') FROM pragma_table_info('preferences')");
    if (result != SQLITE_OK) {
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
        result = SqliteExecute(mDatabase.get(), kConfigureSql);
    }
    if (result == SQLITE_OK && mIsLogKept) {
        // One copy of it is enough, also when this process does not live to write anything.
        result = SqliteExecute(mDatabase.get(), "PRAGMA wal_checkpoint(TRUNCATE)");
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

void PreferenceStore::CloseUntouched()
{
    if (mDatabase) {
        // The log may be what somebody saves the values from: closing must not play and delete it.
        sqlite3_db_config(mDatabase.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    }
    Close();
}

std::string PreferenceStore::FreeName() const
{
    const std::string stem = mPath + ".corrupt-" + TimeStamp(mClock.WallMs());
    std::string name = stem;
    for (unsigned number = 1; !IsFree(name); ++number) {
        name = stem + '-' + std::to_string(number);
    }
    return name;
}

bool PreferenceStore::SetAside(const std::string &problem)
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

void PreferenceStore::Report(const char *what, const std::string &reason)
{
    const std::string report = mPath + ' ' + what + ": " + reason;
    if (report != mLastReport) {
        LogError("%s", report.c_str());
        mLastReport = report;
    }
}

} // namespace ParvanePlatform
