#include "Queue.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <sys/stat.h>
#include <utility>

#include "Log.h"
#include "Printable.h"

namespace ParvaneHub {

namespace {

// kill -9 loses nothing of what is committed, as the system has it; a power cut may lose the last seconds,
// and never damages the file.
constexpr char kConfigure[] =
    "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA cache_size=-512;"
    "PRAGMA journal_size_limit=4194304; PRAGMA temp_store=MEMORY";
constexpr char kCreate[] =
    "CREATE TABLE IF NOT EXISTS messages(place INTEGER PRIMARY KEY, taken INTEGER NOT NULL,"
    " at INTEGER NOT NULL, retained INTEGER NOT NULL, topic TEXT NOT NULL, body TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS watches(name TEXT PRIMARY KEY, steps TEXT NOT NULL) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS dropped(id INTEGER PRIMARY KEY CHECK (id = 0), size INTEGER NOT NULL,"
    " age INTEGER NOT NULL);"
    "INSERT OR IGNORE INTO dropped VALUES(0, 0, 0)";

constexpr std::int64_t kRowBytes = 40; // about what a row has beside its texts

std::int64_t SizeOf(const Message &message)
{
    return static_cast<std::int64_t>(message.mTopic.size() + message.mBody.size()) + kRowBytes;
}

} // namespace

Queue::Queue(std::string path, Limits limits) : mPath(std::move(path)), mLimits(limits)
{
    Parvane::SqliteUseLittleMemory();
    try {
        Open();
    } catch (const std::runtime_error &failure) {
        const std::string aside = mPath + ".damaged";
        const bool isDamaged =
            Parvane::IsSqliteCorruption(sqlite3_extended_errcode(mDatabase.get()));
        mInsert.Close();
        mDelete.Close();
        mAfter.Close();
        mOldest.Close();
        mUpsertSteps.Close();
        mDatabase.reset();
        if (!isDamaged || std::rename(mPath.c_str(), aside.c_str()) != 0) {
            throw;
        }
        std::remove((mPath + "-wal").c_str());
        std::remove((mPath + "-shm").c_str());
        Parvane::LogError(std::string(failure.what()) + ": it is now " + aside +
                          ", and a new one begins");
        Open();
    }
}

void Queue::Put(Message message)
{
    if (mWaiting.size() >= kMostWaiting) {
        mWaiting.pop_front();
        ++mCounts.mDroppedForSize;
    }
    mWaiting.push_back(std::move(message));
}

void Queue::Remove(std::int64_t place)
{
    mRemoved.insert(place);
}

void Queue::SaveSteps(const std::string &watch, std::string text)
{
    mSteps[watch] = std::move(text);
}

void Queue::Forget(const std::string &watch)
{
    mSteps[watch] = std::nullopt;
}

std::string Queue::Commit()
{
    if (!IsWaiting() && OldestAge() <= mLimits.mMostAge) {
        return {};
    }
    const Counts before = mCounts;
    int result = Parvane::SqliteExecute(mDatabase.get(), "BEGIN IMMEDIATE");
    if (result == SQLITE_OK) {
        result = Write();
        if (result == SQLITE_OK) {
            result = Parvane::SqliteExecute(mDatabase.get(), "COMMIT");
        }
    }
    if (result != SQLITE_OK) {
        std::string text = Parvane::SqliteErrorText(mDatabase.get(), result);
        if (sqlite3_get_autocommit(mDatabase.get()) == 0) {
            Parvane::SqliteExecute(mDatabase.get(), "ROLLBACK");
        }
        mCounts = before;
        return text;
    }
    mLastPlace += static_cast<std::int64_t>(mWaiting.size());
    mWaiting.clear();
    mRemoved.clear();
    mSteps.clear();
    mWritten = mCounts;
    return {};
}

std::vector<Queued> Queue::After(std::int64_t place, int most)
{
    std::vector<Queued> messages;
    mAfter.BindInt(1, place);
    mAfter.BindInt(2, most);
    int result = SQLITE_OK;
    while ((result = mAfter.Step()) == SQLITE_ROW) {
        messages.push_back({mAfter.Int(0),
                            mAfter.Int(1),
                            {mAfter.Text(4), mAfter.Text(5), mAfter.Int(2), mAfter.Int(3) != 0}});
    }
    mAfter.Reset();
    if (result != SQLITE_DONE) {
        throw std::runtime_error("cannot read " + mPath + ": " +
                                 Parvane::SqliteErrorText(mDatabase.get(), result));
    }
    return messages;
}

std::map<std::string, std::string> Queue::LoadSteps()
{
    std::map<std::string, std::string> steps;
    Parvane::SqliteStatement select;
    if (select.Prepare(mDatabase.get(), "SELECT name, steps FROM watches") == SQLITE_OK) {
        while (select.Step() == SQLITE_ROW) {
            steps.emplace(select.Text(0), select.Text(1));
        }
    }
    return steps;
}

std::int64_t Queue::ClockS() const
{
    const auto passed = std::chrono::steady_clock::now() - mStart;
    return mClockAtStartS + std::chrono::duration_cast<std::chrono::seconds>(passed).count();
}

std::chrono::seconds Queue::OldestAge()
{
    std::int64_t age = 0;
    if (mCounts.mMessages > 0 && mOldest.Step() == SQLITE_ROW) {
        age = ClockS() - mOldest.Int(1);
    }
    mOldest.Reset();
    return std::chrono::seconds(age);
}

// --- the file -----------------------------------------------------------------------------------

void Queue::Open()
{
    const mode_t old = ::umask(0077);
    sqlite3 *opened = nullptr;
    int result = sqlite3_open_v2(mPath.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                                 nullptr);
    mDatabase.reset(opened);
    sqlite3_extended_result_codes(opened, 1);
    if (result == SQLITE_OK) {
        result = Parvane::SqliteExecute(opened, kConfigure);
    }
    if (result == SQLITE_OK) {
        result = Parvane::SqliteExecute(opened, kCreate);
    }
    ::umask(old);
    if (result != SQLITE_OK) {
        throw std::runtime_error("cannot open the queue " + mPath + ": " +
                                 Parvane::SqliteErrorText(opened, result));
    }
    Prepare();
    LoadCounts();
}

void Queue::Prepare()
{
    sqlite3 *database = mDatabase.get();
    const bool isPrepared =
        mInsert.Prepare(database, "INSERT INTO messages VALUES(?1, ?2, ?3, ?4, ?5, ?6)") ==
            SQLITE_OK &&
        mDelete.Prepare(database,
                        "DELETE FROM messages WHERE place = ?1"
                        " RETURNING length(CAST(topic AS BLOB)) + length(CAST(body AS BLOB))") ==
            SQLITE_OK &&
        mAfter.Prepare(database,
                       "SELECT * FROM messages WHERE place > ?1 ORDER BY place LIMIT ?2") ==
            SQLITE_OK &&
        mOldest.Prepare(database, "SELECT place, taken FROM messages ORDER BY place LIMIT 1") ==
            SQLITE_OK &&
        mUpsertSteps.Prepare(database, "INSERT OR REPLACE INTO watches VALUES(?1, ?2)") ==
            SQLITE_OK;
    if (!isPrepared) {
        throw std::runtime_error("the queue " + mPath + " is none: " + sqlite3_errmsg(database));
    }
}

void Queue::LoadCounts()
{
    mCounts.mMessages = First("SELECT count(*) FROM messages");
    mCounts.mBytes =
        First("SELECT coalesce(sum(length(CAST(topic AS BLOB)) + length(CAST(body AS BLOB))), 0)"
              " FROM messages") +
        mCounts.mMessages * kRowBytes;
    mCounts.mDroppedForSize = First("SELECT size FROM dropped");
    mCounts.mDroppedForAge = First("SELECT age FROM dropped");
    mWritten = mCounts;
    mLastPlace = First("SELECT coalesce(max(place), 0) FROM messages");
    mClockAtStartS = First("SELECT coalesce(max(taken), 0) FROM messages");
}

std::int64_t Queue::First(const char *sql)
{
    Parvane::SqliteStatement select;
    if (const int result = select.First(mDatabase.get(), sql); result != SQLITE_OK) {
        throw std::runtime_error("cannot read the queue " + mPath + ": " +
                                 Parvane::SqliteErrorText(mDatabase.get(), result));
    }
    return select.Int(0);
}

int Queue::Write()
{
    for (const std::int64_t place : mRemoved) {
        if (const int result = Delete(place); result != SQLITE_OK) {
            return result;
        }
    }
    int result = WriteMessages();
    for (auto steps = mSteps.begin(); result == SQLITE_OK && steps != mSteps.end(); ++steps) {
        Parvane::SqliteStatement forget;
        const bool isKept = steps->second.has_value();
        auto &statement = isKept ? mUpsertSteps : forget;
        if (!isKept) {
            forget.Prepare(mDatabase.get(), "DELETE FROM watches WHERE name = ?1");
        }
        statement.BindText(1, steps->first);
        if (isKept) {
            statement.BindText(2, *steps->second);
        }
        const int step = statement.Step();
        statement.Reset();
        result = step == SQLITE_DONE ? SQLITE_OK : step;
    }
    result = result == SQLITE_OK ? DropTooOld() : result;
    result = result == SQLITE_OK ? DropTooMany() : result;
    return result == SQLITE_OK ? WriteCounts() : result;
}

int Queue::WriteMessages()
{
    std::int64_t place = mLastPlace;
    const std::int64_t now = ClockS();
    for (const Message &message : mWaiting) {
        mInsert.BindInt(1, ++place);
        mInsert.BindInt(2, now);
        mInsert.BindInt(3, message.mAtMs);
        mInsert.BindInt(4, message.mIsRetained ? 1 : 0);
        mInsert.BindText(5, message.mTopic);
        mInsert.BindText(6, message.mBody);
        const int step = mInsert.Step();
        mInsert.Reset();
        if (step != SQLITE_DONE) {
            return step;
        }
        ++mCounts.mMessages;
        mCounts.mBytes += SizeOf(message);
    }
    return SQLITE_OK;
}

/** Also of one that is not there any more. */
int Queue::Delete(std::int64_t place)
{
    mDelete.BindInt(1, place);
    int step = mDelete.Step();
    if (step == SQLITE_ROW) {
        --mCounts.mMessages;
        mCounts.mBytes -= mDelete.Int(0) + kRowBytes;
        step = mDelete.Step();
    }
    mDelete.Reset();
    return step == SQLITE_DONE ? SQLITE_OK : step;
}

int Queue::DropTooOld()
{
    int result = SQLITE_OK;
    while (result == SQLITE_OK && mCounts.mMessages > 0 && OldestAge() > mLimits.mMostAge) {
        mOldest.Step();
        const std::int64_t place = mOldest.Int(0);
        mOldest.Reset();
        result = Delete(place);
        ++mCounts.mDroppedForAge;
    }
    return result;
}

int Queue::DropTooMany()
{
    int result = SQLITE_OK;
    while (result == SQLITE_OK && mCounts.mBytes > mLimits.mMostBytes && mCounts.mMessages > 1) {
        const int step = mOldest.Step();
        const std::int64_t place = mOldest.Int(0);
        mOldest.Reset();
        result = step == SQLITE_ROW ? Delete(place) : step;
        ++mCounts.mDroppedForSize;
    }
    return result;
}

int Queue::WriteCounts()
{
    if (mCounts.mDroppedForSize == mWritten.mDroppedForSize &&
        mCounts.mDroppedForAge == mWritten.mDroppedForAge) {
        return SQLITE_OK;
    }
    const std::string sql = "UPDATE dropped SET size = " + std::to_string(mCounts.mDroppedForSize) +
                            ", age = " + std::to_string(mCounts.mDroppedForAge);
    return Parvane::SqliteExecute(mDatabase.get(), sql.c_str());
}

} // namespace ParvaneHub
