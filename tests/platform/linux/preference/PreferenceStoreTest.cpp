#include "PreferenceStore.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <glib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "Files.h"
#include "TestSupport.h"

namespace ParvanePlatform {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr long kPageBytes = 4096;

std::uint32_t BigEndian(const std::string &bytes, std::size_t offset)
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        value = value << 8 | static_cast<unsigned char>(bytes.at(offset + i));
    }
    return value;
}

/** The transactions in a write-ahead log: its frames that say how large the database became. */
int CountTransactions(const std::string &path)
{
    const std::string log = ReadFile(path);
    const std::size_t frameBytes = 24 + BigEndian(log, 8);
    int count = 0;
    for (std::size_t frame = 32; frame + frameBytes <= log.size(); frame += frameBytes) {
        count += BigEndian(log, frame + 4) != 0 ? 1 : 0;
    }
    return count;
}

/** No file grows beyond `bytes`: a full disk, for this process. */
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        mOldHandler = signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &mOld);
        const rlimit limit = {bytes, mOld.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    ~FileSizeLimit()
    {
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &mOld), 0);
        signal(SIGXFSZ, mOldHandler);
    }

    FileSizeLimit(const FileSizeLimit &) = delete;
    FileSizeLimit &operator=(const FileSizeLimit &) = delete;

private:
    rlimit mOld = {};
    sighandler_t mOldHandler = SIG_DFL;
};

/** Holds the database's write lock, from this process. */
class WriteLock
{
public:
    explicit WriteLock(const std::string &path)
    {
        sqlite3 *opened = nullptr;
        EXPECT_EQ(sqlite3_open(path.c_str(), &opened), SQLITE_OK);
        mDatabase.reset(opened);
        EXPECT_EQ(SqliteExecute(opened, "BEGIN IMMEDIATE"), SQLITE_OK);
    }

private:
    SqliteHandle mDatabase;
};

/** Another process that has run some SQL on the database, and holds what locks that took. */
class LockingProcess
{
public:
    LockingProcess(const std::string &path, const char *sql)
    {
        int ready[2] = {-1, -1};
        EXPECT_EQ(pipe(ready), 0);
        mPid = fork();
        if (mPid == 0) {
            sqlite3 *opened = nullptr;
            const bool isLocked = sqlite3_open(path.c_str(), &opened) == SQLITE_OK &&
                                  SqliteExecute(opened, sql) == SQLITE_OK;
            const char answer = isLocked ? 'y' : 'n';
            if (write(ready[1], &answer, 1) == 1) {
                pause();
            }
            _exit(0);
        }
        char answer = 0;
        EXPECT_EQ(read(ready[0], &answer, 1), 1);
        EXPECT_EQ(answer, 'y');
        close(ready[0]);
        close(ready[1]);
    }
    ~LockingProcess()
    {
        kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
    }

    LockingProcess(const LockingProcess &) = delete;
    LockingProcess &operator=(const LockingProcess &) = delete;

private:
    pid_t mPid = -1;
};

/** The process is an ordinary user meanwhile, because root may do everything. */
class OrdinaryUser
{
public:
    OrdinaryUser() : mWasRoot(geteuid() == 0) { EXPECT_TRUE(!mWasRoot || seteuid(65534) == 0); }
    ~OrdinaryUser() { EXPECT_TRUE(!mWasRoot || seteuid(0) == 0); }

    OrdinaryUser(const OrdinaryUser &) = delete;
    OrdinaryUser &operator=(const OrdinaryUser &) = delete;

private:
    bool mWasRoot;
};

/** A small file system of its own, which nobody but this process sees; gone at the end. */
class MountedDisk
{
public:
    MountedDisk(std::string path, const char *options) : mPath(std::move(path))
    {
        std::filesystem::create_directory(mPath);
        if (unshare(CLONE_NEWNS) != 0 ||
            mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("none", mPath.c_str(), "tmpfs", 0, options) != 0) {
            mError = errno;
        }
    }
    ~MountedDisk()
    {
        if (IsThere()) {
            EXPECT_EQ(umount2(mPath.c_str(), MNT_DETACH), 0);
        }
    }

    MountedDisk(const MountedDisk &) = delete;
    MountedDisk &operator=(const MountedDisk &) = delete;

    bool IsThere() const { return mError == 0; }
    std::string WhyNot() const { return ErrorText(mError); }

    bool Remount(bool readOnly) const
    {
        const unsigned long readOnlyFlag = MS_RDONLY;
        const unsigned long flags = MS_REMOUNT | (readOnly ? readOnlyFlag : 0UL);
        return mount("none", mPath.c_str(), "none", flags, nullptr) == 0;
    }

private:
    std::string mPath;
    int mError = 0;
};

/** Writes a file until there is no room any more. */
void FillDisk(const std::string &path)
{
    std::ofstream file(path, std::ios::binary);
    const std::string block(512, 'x');
    while (file.write(block.data(), static_cast<std::streamsize>(block.size())) && file.flush()) {
    }
}

} // namespace

class PreferenceStoreTest : public testing::Test
{
protected:
    PreferenceStoreTest() { Restart(); }

    void Restart()
    {
        mStore.reset();
        mStore = std::make_unique<PreferenceStore>(mDirectory.Path(), mClock);
    }

    std::string File() const { return mDirectory / "preferences.db"; }

    /** Runs SQL on the file, as another program would. @return the cells of the rows */
    std::vector<std::string> Sql(const std::string &sql) const
    {
        sqlite3 *opened = nullptr;
        EXPECT_EQ(sqlite3_open(File().c_str(), &opened), SQLITE_OK);
        const SqliteHandle database(opened);
        std::vector<std::string> cells;
        const auto collect = [](void *data, int count, char **values, char **) {
            for (int i = 0; i < count; ++i) {
                static_cast<std::vector<std::string> *>(data)->emplace_back(
                    values[i] != nullptr ? values[i] : "null");
            }
            return 0;
        };
        EXPECT_EQ(sqlite3_exec(database.get(), sql.c_str(), collect, &cells, nullptr), SQLITE_OK)
            << sql << ": " << sqlite3_errmsg(database.get());
        return cells;
    }

    std::vector<std::string> FileNames() const
    {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(mDirectory.Path())) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    /** The loop goes into its next turn; what is due then is not run. */
    static void EndTurn() { NextWakeMs(); }

    template <typename Value>
    int Get(const std::string &key, Value &value)
    {
        return mStore->Get(key, value);
    }

    int GetInt(const std::string &key)
    {
        int value = 12345;
        const int result = mStore->Get(key, value);
        EXPECT_TRUE(result == 0 || value == 12345);
        return result == 0 ? value : result;
    }

    /** The files as they are on the disk now, which is what a killed process leaves. */
    struct Files
    {
        std::string mDatabase;
        std::string mLog;
    };
    Files KilledNow() const { return {ReadFile(File()), ReadFile(File() + "-wal")}; }

    /** Puts files in the place of those that are there. The store must be closed. */
    void Place(const Files &files) const
    {
        std::filesystem::remove(File() + "-shm");
        WriteFile(File(), files.mDatabase);
        WriteFile(File() + "-wal", files.mLog);
    }

    std::vector<std::string> SetAsideNames() const
    {
        std::vector<std::string> names = FileNames();
        std::erase_if(names, [](const std::string &name) {
            return name.find(".corrupt-") == std::string::npos;
        });
        return names;
    }

    /** The rows as they are in the file, not as this process sees them. */
    std::vector<std::string> Rows() const { return Sql("SELECT key, value FROM preferences"); }

    /** Starts with a file that must be set aside, and expects that. @return the error line */
    std::string ExpectSetAside()
    {
        mStore.reset();
        const std::string before = ReadFile(File());
        StderrCapture capture;
        Restart();
        const std::string log = capture.Take();
        const std::string aside = mDirectory / "preferences.db.corrupt-20260131T123456Z";
        EXPECT_TRUE(ReadFile(aside) == before);
        EXPECT_EQ(GetInt("a"), -126);
        EXPECT_EQ(mStore->Set("a", 2), 0);
        EXPECT_TRUE(mStore->Commit());
        EXPECT_THAT(Sql("SELECT value FROM preferences"), ElementsAre("2"));
        const std::string head = "E platform: " + File() + " is damaged (";
        const std::string tail = "): set aside as " + aside + ", the preferences start empty\n";
        EXPECT_EQ(log.substr(0, head.size()), head);
        EXPECT_TRUE(log.ends_with(tail)) << log;
        return log.size() > head.size() + tail.size()
                   ? log.substr(head.size(), log.size() - head.size() - tail.size())
                   : log;
    }

    ManualClock mClock;
    TemporaryDirectory mDirectory;
    std::unique_ptr<PreferenceStore> mStore;
};

TEST_F(PreferenceStoreTest, ValuesOutliveTheStore)
{
    EXPECT_EQ(mStore->Set("b", true), 0);
    EXPECT_EQ(mStore->Set("i", std::numeric_limits<int>::min()), 0);
    EXPECT_EQ(mStore->Set("s", std::string("1 2 3.5")), 0);
    EXPECT_EQ(mStore->Set("e", std::string()), 0);
    Restart();
    bool boolean = false;
    int number = 0;
    std::string text;
    std::string empty = "not";
    EXPECT_EQ(Get("b", boolean), 0);
    EXPECT_EQ(Get("i", number), 0);
    EXPECT_EQ(Get("s", text), 0);
    EXPECT_EQ(Get("e", empty), 0);
    EXPECT_TRUE(boolean);
    EXPECT_EQ(number, std::numeric_limits<int>::min());
    EXPECT_EQ(text, "1 2 3.5");
    EXPECT_EQ(empty, "");
}

TEST_F(PreferenceStoreTest, FilesAreForTheOwnerAlone)
{
    EXPECT_EQ(ModeOf(File()), 0600U);
    EXPECT_EQ(ModeOf(File() + "-wal"), 0600U);
}

TEST_F(PreferenceStoreTest, MissingKeyIsTold)
{
    bool boolean = true;
    std::string text = "untouched";
    EXPECT_EQ(Get("none", boolean), -126);
    EXPECT_EQ(GetInt("none"), -126);
    EXPECT_EQ(Get("none", text), -126);
    EXPECT_TRUE(boolean);
    EXPECT_EQ(text, "untouched");
}

TEST_F(PreferenceStoreTest, WrongTypeIsAFailureOfItsOwn)
{
    ASSERT_EQ(mStore->Set("b", true), 0);
    ASSERT_EQ(mStore->Set("i", 1), 0);
    ASSERT_EQ(mStore->Set("s", std::string("1")), 0);
    for (int i = 0; i < 2; ++i) { // before and after the write has reached the file
        bool boolean = false;
        std::string text;
        EXPECT_EQ(GetInt("b"), -22);
        EXPECT_EQ(GetInt("s"), -22);
        EXPECT_EQ(Get("i", boolean), -22);
        EXPECT_EQ(Get("s", boolean), -22);
        EXPECT_EQ(Get("b", text), -22);
        EXPECT_EQ(Get("i", text), -22);
        EXPECT_TRUE(mStore->Commit());
    }
}

TEST_F(PreferenceStoreTest, WriteTakesOverTheType)
{
    ASSERT_EQ(mStore->Set("k", std::string("text")), 0);
    ASSERT_EQ(mStore->Set("k", 5), 0);
    EXPECT_EQ(GetInt("k"), 5);
    Restart();
    EXPECT_EQ(GetInt("k"), 5);
}

TEST_F(PreferenceStoreTest, ExistenceIsToldForEachType)
{
    ASSERT_EQ(mStore->Set("k", std::string("text")), 0);
    bool exists = false;
    EXPECT_EQ(mStore->Exists("k", exists), 0);
    EXPECT_TRUE(exists);
    EXPECT_EQ(mStore->Exists("none", exists), 0);
    EXPECT_FALSE(exists);
}

TEST_F(PreferenceStoreTest, BadKeysAreRefused)
{
    for (const std::string &key : {std::string(), std::string(1025, 'k')}) {
        bool exists = true;
        EXPECT_EQ(mStore->Set(key, 1), -22);
        EXPECT_EQ(GetInt(key), -22);
        EXPECT_EQ(mStore->Exists(key, exists), -22);
        EXPECT_TRUE(exists);
    }
    EXPECT_EQ(mStore->Set(std::string(1024, 'k'), 1), 0);
}

TEST_F(PreferenceStoreTest, WritesOfOneTurnAreOneTransaction)
{
    const std::string log = File() + "-wal";
    const int before = CountTransactions(log);
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(mStore->Set("k" + std::to_string(i), i), 0);
    }
    EXPECT_EQ(CountTransactions(log), before);
    EXPECT_EQ(GetInt("k4"), 4);

    RunWhileBusy();

    EXPECT_EQ(CountTransactions(log), before + 1);
    EXPECT_THAT(Sql("SELECT count(*) FROM preferences"), ElementsAre("5"));
    RunWhileBusy();
    EXPECT_EQ(CountTransactions(log), before + 1);
}

TEST_F(PreferenceStoreTest, NothingWakesTheLoopAfterAWrite)
{
    ASSERT_EQ(mStore->Set("k", 1), 0);
    EXPECT_EQ(NextWakeMs(), -1);
    EXPECT_THAT(Sql("SELECT value FROM preferences"), ElementsAre("1"));
}

TEST_F(PreferenceStoreTest, RowsThatNobodyHereWroteAreChecked)
{
    Sql("INSERT INTO preferences VALUES('b', 0, 2), ('i', 1, 2147483648), ('t', 1, 'x'),"
        " ('u', 7, 1), ('r', 1, 1.5)");
    bool boolean = true;
    EXPECT_EQ(Get("b", boolean), -74);
    for (const char *key : {"i", "t", "u", "r"}) {
        EXPECT_EQ(GetInt(key), -74) << key;
    }
    bool exists = false;
    EXPECT_EQ(mStore->Exists("u", exists), 0);
    EXPECT_TRUE(exists);
}

TEST_F(PreferenceStoreTest, FileThatIsNoDatabaseIsSetAside)
{
    mStore.reset();
    WriteFile(File(), "these are not the preferences that you are looking for");
    EXPECT_EQ(ExpectSetAside(), "file is not a database");
}

TEST_F(PreferenceStoreTest, DamagedPagesAreSetAside)
{
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(mStore->Set("key" + std::to_string(i), std::string(100, 'x')), 0);
    }
    mStore.reset();
    std::string content = ReadFile(File());
    ASSERT_GT(content.size(), kPageBytes * 5);
    std::fill_n(content.begin() + kPageBytes * 2, kPageBytes, '\x5a');
    WriteFile(File(), content);
    EXPECT_THAT(ExpectSetAside(), testing::HasSubstr("age 3")); // "Page 3" or "page 3"
}

TEST_F(PreferenceStoreTest, TruncatedFileIsSetAside)
{
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(mStore->Set("key" + std::to_string(i), std::string(100, 'x')), 0);
    }
    mStore.reset();
    std::filesystem::resize_file(File(), kPageBytes * 3);
    EXPECT_EQ(ExpectSetAside(), "database disk image is malformed");
}

TEST_F(PreferenceStoreTest, OtherLayoutIsSetAside)
{
    mStore.reset();
    std::filesystem::remove(File());
    Sql("CREATE TABLE preferences(key TEXT PRIMARY KEY, value TEXT); PRAGMA user_version=1;");
    EXPECT_EQ(ExpectSetAside(), "its layout is not that of preferences");
}

TEST_F(PreferenceStoreTest, ForeignDatabaseIsSetAside)
{
    mStore.reset();
    std::filesystem::remove(File());
    Sql("CREATE TABLE other(x)");
    EXPECT_EQ(ExpectSetAside(), "its layout has version 0, this program knows 1");
}

TEST_F(PreferenceStoreTest, OlderVersionIsSetAside)
{
    mStore.reset();
    Sql("PRAGMA user_version=0");
    EXPECT_EQ(ExpectSetAside(), "its layout has version 0, this program knows 1");
}

TEST_F(PreferenceStoreTest, NewerVersionStaysAsItIsAndIsGoodForTheNewerProgram)
{
    ASSERT_EQ(mStore->Set("a", 1), 0);
    mStore.reset();
    Sql("PRAGMA user_version=2");
    const std::string before = ReadFile(File());
    StderrCapture capture;
    Restart();

    for (int i = 0; i < 3; ++i) {
        bool exists = true;
        EXPECT_EQ(GetInt("a"), -5);
        EXPECT_EQ(mStore->Exists("a", exists), -5);
        EXPECT_EQ(mStore->Set("a", 2), -5);
        RunWhileBusy();
    }
    mStore.reset();

    EXPECT_EQ(capture.Take(),
              "E platform: " + File() +
                  " cannot be opened: its layout has version 2, this program knows 1\n");
    EXPECT_TRUE(ReadFile(File()) == before);
    EXPECT_THAT(SetAsideNames(), IsEmpty());
    Sql("PRAGMA user_version=1");
    Restart();
    EXPECT_EQ(GetInt("a"), 1);
}

TEST_F(PreferenceStoreTest, LogOfANewerVersionStaysToo)
{
    ASSERT_EQ(mStore->Set("a", 1), 0);
    ASSERT_TRUE(mStore->Commit());
    Sql("PRAGMA user_version=2");
    const Files killed = KilledNow();
    mStore.reset();
    Place(killed);
    const StderrCapture quiet;
    Restart();
    EXPECT_EQ(mStore->Set("a", 2), -5);
    mStore.reset();

    EXPECT_TRUE(ReadFile(File()) == killed.mDatabase);
    EXPECT_TRUE(ReadFile(File() + "-wal") == killed.mLog);
}

TEST_F(PreferenceStoreTest, HigherVersionOfAnotherApplicationIsSetAside)
{
    mStore.reset();
    std::filesystem::remove(File());
    Sql("CREATE TABLE other(x); PRAGMA user_version=5");
    EXPECT_EQ(ExpectSetAside(), "its layout has version 5, this program knows 1");
}

TEST_F(PreferenceStoreTest, EmptyFileIsANewDatabase)
{
    mStore.reset();
    WriteFile(File(), "");
    StderrCapture capture;
    Restart();
    EXPECT_EQ(mStore->Set("a", 1), 0);
    EXPECT_EQ(capture.Take(), "");
}

TEST_F(PreferenceStoreTest, SetAsideFilesNeverReplaceEachOther)
{
    const StderrCapture quiet;
    for (const char *content : {"first", "second", "third"}) {
        mStore.reset();
        WriteFile(File(), content);
        WriteFile(File() + "-wal", content);
        Restart();
    }
    mStore.reset();
    const std::string stem = mDirectory / "preferences.db.corrupt-20260131T123456Z";
    EXPECT_EQ(ReadFile(stem), "first");
    EXPECT_EQ(ReadFile(stem + "-wal"), "first");
    EXPECT_EQ(ReadFile(stem + "-1"), "second");
    EXPECT_EQ(ReadFile(stem + "-2"), "third");
    EXPECT_EQ(ReadFile(stem + "-2-wal"), "third");
}

TEST_F(PreferenceStoreTest, DamageThatIsFoundLaterIsSetAsideAndLosesNoNewWrite)
{
    // More than SQLite keeps in memory, so that it has to read the file again.
    for (int i = 0; i < 40; ++i) {
        ASSERT_EQ(mStore->Set("key" + std::to_string(i), std::string(200'000, 'x')), 0);
    }
    Restart();
    ASSERT_EQ(mStore->Set("fresh", 7), 0);
    std::string content = ReadFile(File());
    std::fill(content.begin() + kPageBytes, content.end(), '\xff');
    WriteFile(File(), content);

    StderrCapture capture;
    std::string text;
    EXPECT_EQ(Get("key20", text), -5);
    EXPECT_THAT(capture.Take(),
                StartsWith("E platform: " + File() + " is damaged (database disk image is "));
    EXPECT_EQ(Get("key20", text), -126);
    EXPECT_EQ(GetInt("fresh"), 7);
    EXPECT_EQ(mStore->Set("more", 8), 0);
    Restart();
    EXPECT_EQ(GetInt("fresh"), 7);
    EXPECT_EQ(GetInt("more"), 8);
}

TEST_F(PreferenceStoreTest, ClosedDirectoryIsAFailureUntilItOpens)
{
    mStore.reset();
    std::filesystem::remove(File());
    StderrCapture capture;
    {
        const ClosedDirectory closed(mDirectory.Path());
        Restart();
        bool exists = true;
        EXPECT_EQ(mStore->Set("a", 1), -5);
        EXPECT_EQ(GetInt("a"), -5);
        EXPECT_EQ(mStore->Exists("a", exists), -5);
        EXPECT_TRUE(exists);
    }
    RunWhileBusy();
    EXPECT_EQ(mStore->Set("a", 1), 0);
    EXPECT_EQ(GetInt("a"), 1);
    // Once, although each call has tried.
    EXPECT_EQ(capture.Take(), "E platform: " + File() + " cannot be opened: Permission denied\n");
}

TEST_F(PreferenceStoreTest, DirectoryInTheFilesPlaceIsAFailure)
{
    mStore.reset();
    std::filesystem::remove(File());
    std::filesystem::create_directory(File());
    StderrCapture capture;
    Restart();
    EXPECT_EQ(mStore->Set("a", 1), -5);
    EXPECT_THAT(capture.Take(), StartsWith("E platform: " + File() +
                                           " cannot be opened: it is not a regular file"));
    EXPECT_THAT(FileNames(), ElementsAre("preferences.db"));
}

TEST_F(PreferenceStoreTest, LockedDatabaseIsAFailureAfterAShortWhile)
{
    sqlite3 *opened = nullptr;
    ASSERT_EQ(sqlite3_open(File().c_str(), &opened), SQLITE_OK);
    const SqliteHandle other(opened);
    ASSERT_EQ(SqliteExecute(opened, "BEGIN IMMEDIATE"), SQLITE_OK);
    StderrCapture capture;
    EXPECT_EQ(mStore->Set("a", 1), -5);
    EXPECT_EQ(GetInt("a"), -126);
    EXPECT_EQ(capture.Take(), "E platform: " + File() + " cannot be written: database is locked\n");
    ASSERT_EQ(SqliteExecute(opened, "ROLLBACK"), SQLITE_OK);
    RunWhileBusy();
    EXPECT_EQ(mStore->Set("a", 1), 0);
}

TEST_F(PreferenceStoreTest, FailedCommitKeepsItsWritesAndTriesAgain)
{
    ASSERT_EQ(mStore->Set("a", 1), 0);
    ASSERT_EQ(mStore->Set("b", std::string("text")), 0);
    StderrCapture capture;
    {
        const FileSizeLimit full(std::filesystem::file_size(File() + "-wal"));
        EXPECT_FALSE(mStore->Commit());
        EXPECT_EQ(GetInt("a"), 1);
        g_main_context_iteration(nullptr, FALSE); // the clock stands at 0: the next attempt is due
    }
    EXPECT_THAT(capture.Take(), StartsWith("E platform: " + File() + " cannot be saved: "));
    EXPECT_THAT(Sql("SELECT key FROM preferences"), IsEmpty());
    EXPECT_EQ(GetInt("a"), 1);

    EXPECT_TRUE(RunUntil([this] { return mStore->Commit(); }));

    EXPECT_THAT(Sql("SELECT key, value FROM preferences ORDER BY key"),
                ElementsAre("a", "1", "b", "text"));
    EXPECT_EQ(NextWakeMs(), -1);
}

TEST_F(PreferenceStoreTest, NextWriteTakesUnsavedOnesAlong)
{
    ASSERT_EQ(mStore->Set("a", 1), 0);
    const StderrCapture quiet;
    {
        const FileSizeLimit full(std::filesystem::file_size(File() + "-wal"));
        EXPECT_FALSE(mStore->Commit());
    }
    ASSERT_EQ(mStore->Set("b", 2), 0);
    EXPECT_TRUE(mStore->Commit());
    EXPECT_THAT(Sql("SELECT key FROM preferences ORDER BY key"), ElementsAre("a", "b"));
}

TEST_F(PreferenceStoreTest, WhatIsLostAtTheEndIsNamed)
{
    ASSERT_EQ(mStore->Set("a", 1), 0);
    StderrCapture capture;
    {
        const FileSizeLimit full(std::filesystem::file_size(File() + "-wal"));
        mStore.reset();
    }
    EXPECT_THAT(capture.Take(),
                testing::EndsWith("E platform: the last value of the preference a is lost\n"));
}

// Turns, and what is written in one of them.

TEST_F(PreferenceStoreTest, SecuringATurnPutsItsWritesOnTheDiskAtOnce)
{
    ASSERT_EQ(mStore->Set("value", std::string("7")), 0);
    ASSERT_EQ(mStore->Set("time", 70), 0);
    EXPECT_THAT(Rows(), IsEmpty());

    EXPECT_TRUE(mStore->SecureTurn());

    EXPECT_THAT(Rows(), ElementsAre("time", "70", "value", "7"));
}

TEST_F(PreferenceStoreTest, EachReadingOfATurnIsSecuredByItself)
{
    const int before = CountTransactions(File() + "-wal");
    for (int reading = 1; reading <= 3; ++reading) {
        ASSERT_EQ(mStore->Set("value", reading), 0);
        ASSERT_EQ(mStore->Set("time", reading * 10), 0);
        EXPECT_TRUE(mStore->SecureTurn());
        EXPECT_THAT(Rows(), ElementsAre("time", std::to_string(reading * 10), "value",
                                        std::to_string(reading)));
    }
    RunWhileBusy();
    EXPECT_EQ(CountTransactions(File() + "-wal"), before + 3);
}

TEST_F(PreferenceStoreTest, SecuringATurnWithoutWritesTouchesNothing)
{
    const std::string before = ReadFile(File() + "-wal");
    {
        const StderrCapture quiet;
        const FileSizeLimit full(1);
        EXPECT_TRUE(mStore->SecureTurn());
    }
    EXPECT_TRUE(ReadFile(File() + "-wal") == before);
}

TEST_F(PreferenceStoreTest, TurnThatCannotBeSavedIsNotSecureAndTheNextOneIs)
{
    ASSERT_EQ(mStore->Set("value", 1), 0);
    const StderrCapture quiet;
    const FileSizeLimit full(std::filesystem::file_size(File() + "-wal"));

    EXPECT_FALSE(mStore->SecureTurn());
    EXPECT_FALSE(mStore->SecureTurn());
    EndTurn();

    EXPECT_TRUE(mStore->SecureTurn()); // nothing new has been written
    ASSERT_EQ(mStore->Set("value", 2), 0);
    EXPECT_FALSE(mStore->SecureTurn());
}

TEST_F(PreferenceStoreTest, AttemptOfOlderWritesDoesNotMakeATurnFail)
{
    ASSERT_EQ(mStore->Set("value", 1), 0);
    const StderrCapture quiet;
    const FileSizeLimit full(std::filesystem::file_size(File() + "-wal"));
    EndTurn();

    EXPECT_FALSE(mStore->Commit());

    EXPECT_TRUE(mStore->SecureTurn());
}

TEST_F(PreferenceStoreTest, ValueAndTimeStayTogetherWhenTheirTurnCannotBeSaved)
{
    ASSERT_EQ(mStore->Set("value", 1), 0);
    ASSERT_EQ(mStore->Set("time", 10), 0);
    ASSERT_TRUE(mStore->Commit());
    {
        const StderrCapture quiet;
        const FileSizeLimit full(std::filesystem::file_size(File() + "-wal"));
        for (int reading = 2; reading <= 4; ++reading) {
            EXPECT_EQ(mStore->Set("value", reading), 0);
            EXPECT_EQ(mStore->Set("time", reading * 10), 0);
            EXPECT_FALSE(mStore->SecureTurn());
            EXPECT_EQ(GetInt("value"), reading);
            EXPECT_EQ(GetInt("time"), reading * 10);
            EndTurn();
        }
    }
    const std::vector<std::string> before = Rows();
    EXPECT_THAT(before, ElementsAre("time", "10", "value", "1"));

    EXPECT_TRUE(RunUntil([&] { return Rows() != before; }));

    EXPECT_THAT(Rows(), ElementsAre("time", "40", "value", "4"));
}

TEST_F(PreferenceStoreTest, SecondReadingOfATurnIsNotSecureWhenTheFirstIsNot)
{
    ASSERT_EQ(mStore->Set("value", 1), 0);
    {
        const StderrCapture quiet;
        const FileSizeLimit full(std::filesystem::file_size(File() + "-wal"));
        EXPECT_FALSE(mStore->SecureTurn());
    }
    // There is room again, but a message of this turn would come after one that was held back.
    ASSERT_EQ(mStore->Set("value", 2), 0);
    EXPECT_FALSE(mStore->SecureTurn());
    EndTurn();
    EXPECT_THAT(Rows(), ElementsAre("value", "2"));
    EXPECT_TRUE(mStore->SecureTurn());
}

TEST_F(PreferenceStoreTest, FailedWriteTakesTheTurnBackAndNothingOfItFollows)
{
    ASSERT_EQ(mStore->Set("value", 1), 0);
    ASSERT_EQ(mStore->Set("time", 10), 0);
    ASSERT_TRUE(mStore->Commit());
    const StderrCapture quiet;
    {
        const WriteLock other(File());
        EXPECT_EQ(mStore->Set("value", 2), -5);
    }
    // The lock has gone, but the value that this time belongs to is not there.
    EXPECT_EQ(mStore->Set("time", 20), -5);
    EXPECT_FALSE(mStore->SecureTurn());
    EXPECT_EQ(GetInt("value"), 1);
    EXPECT_EQ(GetInt("time"), 10);
    RunWhileBusy();
    EXPECT_THAT(Rows(), ElementsAre("time", "10", "value", "1"));

    ASSERT_EQ(mStore->Set("value", 3), 0);
    ASSERT_EQ(mStore->Set("time", 30), 0);
    EXPECT_TRUE(mStore->SecureTurn());
    EXPECT_THAT(Rows(), ElementsAre("time", "30", "value", "3"));
}

TEST_F(PreferenceStoreTest, FailedSecondWriteTakesTheFirstBack)
{
    ASSERT_EQ(mStore->Set("time", 10), 0);
    ASSERT_EQ(mStore->Set("value", 1), 0);
    ASSERT_TRUE(mStore->Commit());
    // The second of the two is refused by the database itself.
    Sql("CREATE TRIGGER refuse BEFORE UPDATE ON preferences WHEN new.key = 'time'"
        " BEGIN SELECT RAISE(ABORT, 'no'); END");
    StderrCapture capture;

    EXPECT_EQ(mStore->Set("value", 2), 0);
    EXPECT_EQ(mStore->Set("time", 20), -5);

    EXPECT_FALSE(mStore->SecureTurn());
    EXPECT_EQ(GetInt("value"), 1);
    EXPECT_EQ(GetInt("time"), 10);
    RunWhileBusy();
    EXPECT_THAT(Rows(), ElementsAre("time", "10", "value", "1"));
    EXPECT_THAT(capture.Take(), StartsWith("E platform: " + File() + " cannot be written: "));
}

TEST_F(PreferenceStoreTest, ErrorThatEndsTheTransactionItselfTakesTheTurnBackToo)
{
    ASSERT_EQ(mStore->Set("time", 10), 0);
    ASSERT_EQ(mStore->Set("value", 1), 0);
    ASSERT_TRUE(mStore->Commit());
    Sql("CREATE TRIGGER refuse BEFORE UPDATE ON preferences WHEN new.key = 'time'"
        " BEGIN SELECT RAISE(ROLLBACK, 'no'); END");
    const StderrCapture quiet;
    EXPECT_EQ(mStore->Set("value", 2), 0);
    EXPECT_EQ(mStore->Set("time", 20), -5);
    EXPECT_EQ(mStore->Set("value", 3), -5);
    EXPECT_FALSE(mStore->SecureTurn());
    RunWhileBusy();
    EXPECT_THAT(Rows(), ElementsAre("time", "10", "value", "1"));
    Sql("DROP TRIGGER refuse");
    ASSERT_EQ(mStore->Set("value", 4), 0);
    ASSERT_EQ(mStore->Set("time", 40), 0);
    EXPECT_TRUE(mStore->SecureTurn());
    EXPECT_THAT(Rows(), ElementsAre("time", "40", "value", "4"));
}

TEST_F(PreferenceStoreTest, TurnThatIsTakenBackKeepsWhatEarlierTurnsCouldNotSave)
{
    const StderrCapture quiet;
    ASSERT_EQ(mStore->Set("value", 1), 0);
    ASSERT_EQ(mStore->Set("time", 10), 0);
    {
        const FileSizeLimit full(std::filesystem::file_size(File() + "-wal"));
        EXPECT_FALSE(mStore->SecureTurn());
    }
    mStore->TakeTurnBack();
    EXPECT_EQ(GetInt("value"), 1);

    EXPECT_TRUE(RunUntil([this] { return !Rows().empty(); }));

    EXPECT_THAT(Rows(), ElementsAre("time", "10", "value", "1"));
}

TEST_F(PreferenceStoreTest, BadKeyIsTheCallersFaultAndLeavesTheTurnAlone)
{
    ASSERT_EQ(mStore->Set("a", 1), 0);
    EXPECT_EQ(mStore->Set("", 2), -22);
    EXPECT_TRUE(mStore->SecureTurn());
    EXPECT_THAT(Rows(), ElementsAre("a", "1"));
}

TEST_F(PreferenceStoreTest, DamageFoundInTheMiddleOfATurnTakesTheWholeTurnToTheNewFile)
{
    for (int i = 0; i < 40; ++i) {
        ASSERT_EQ(mStore->Set("key" + std::to_string(i), std::string(200'000, 'x')), 0);
    }
    Restart();
    ASSERT_EQ(mStore->Set("value", 7), 0);
    std::string content = ReadFile(File());
    std::fill(content.begin() + kPageBytes, content.end(), '\xff');
    WriteFile(File(), content);
    const StderrCapture quiet;
    std::string text;
    EXPECT_EQ(Get("key20", text), -5);

    EXPECT_EQ(mStore->Set("time", 70), 0);

    EXPECT_TRUE(mStore->SecureTurn());
    EXPECT_THAT(Rows(), ElementsAre("time", "70", "value", "7"));
}

TEST_F(PreferenceStoreTest, TurnIsSavedAlsoWhenItsFileIsSetAsideByARead)
{
    for (int i = 0; i < 40; ++i) {
        ASSERT_EQ(mStore->Set("key" + std::to_string(i), std::string(200'000, 'x')), 0);
    }
    Restart();
    ASSERT_EQ(mStore->Set("value", 7), 0);
    std::string content = ReadFile(File());
    std::fill(content.begin() + kPageBytes, content.end(), '\xff');
    WriteFile(File(), content);
    const StderrCapture quiet;
    std::string text;
    EXPECT_EQ(Get("key20", text), -5);

    RunWhileBusy();

    EXPECT_THAT(Rows(), ElementsAre("value", "7"));
}

TEST_F(PreferenceStoreTest, LogDoesNotGrowWithoutEnd)
{
    std::uintmax_t largest = 0;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(mStore->Set("value", i), 0);
        ASSERT_TRUE(mStore->SecureTurn());
        largest = std::max(largest, std::filesystem::file_size(File() + "-wal"));
    }
    EXPECT_LT(largest, 512U * 1024U);
}

TEST_F(PreferenceStoreTest, OrderlyEndLeavesTheDatabaseAlone)
{
    ASSERT_EQ(mStore->Set("value", 1), 0);
    mStore.reset();
    EXPECT_THAT(FileNames(), ElementsAre("preferences.db"));
}

// Another program's locks.

TEST_F(PreferenceStoreTest, ExclusiveLockOfAnotherProcessIsAFailureAndGoesByItself)
{
    ASSERT_EQ(mStore->Set("a", 1), 0);
    ASSERT_TRUE(mStore->Commit());
    const StderrCapture quiet;
    {
        const LockingProcess other(File(), "BEGIN EXCLUSIVE");
        EXPECT_EQ(GetInt("a"), 1); // who reads a database with a log waits for nobody
        EXPECT_EQ(mStore->Set("a", 2), -5);
        EXPECT_FALSE(mStore->SecureTurn());
    }
    RunWhileBusy();
    EXPECT_EQ(mStore->Set("a", 2), 0);
    EXPECT_TRUE(mStore->SecureTurn());
    EXPECT_THAT(Rows(), ElementsAre("a", "2"));
}

TEST_F(PreferenceStoreTest, DatabaseThatIsLockedWhenItIsOpenedIsAFailureUntilItIsFree)
{
    ASSERT_EQ(mStore->Set("a", 1), 0);
    mStore.reset();
    StderrCapture capture;
    {
        // Nobody else can even read it.
        const LockingProcess other(File(), "PRAGMA locking_mode=EXCLUSIVE; BEGIN EXCLUSIVE");
        Restart();
        bool exists = true;
        EXPECT_EQ(GetInt("a"), -5);
        EXPECT_EQ(mStore->Exists("a", exists), -5);
        EXPECT_EQ(mStore->Set("a", 2), -5);
    }
    EXPECT_EQ(capture.Take(), "E platform: " + File() + " cannot be opened: database is locked\n");
    EXPECT_THAT(SetAsideNames(), IsEmpty());
    RunWhileBusy();
    EXPECT_EQ(GetInt("a"), 1);
    EXPECT_EQ(mStore->Set("a", 2), 0);
}

// Full and read-only disks.

TEST_F(PreferenceStoreTest, FullDiskIsAFailureThatEndsWithTheRoom)
{
    const MountedDisk disk(mDirectory / "disk", "size=96k");
    if (!disk.IsThere()) {
        GTEST_SKIP() << "no file system can be mounted here: " << disk.WhyNot();
    }
    PreferenceStore store(mDirectory / "disk", mClock);
    ASSERT_EQ(store.Set("value", 1), 0);
    ASSERT_EQ(store.Set("time", 10), 0);
    ASSERT_TRUE(store.SecureTurn());
    StderrCapture capture;
    FillDisk(mDirectory / "disk/ballast");
    bool isSecure = true;
    int last = 1;
    while (isSecure && last < 1000) {
        EndTurn();
        ++last;
        ASSERT_EQ(store.Set("value", last), 0);
        ASSERT_EQ(store.Set("time", last * 10), 0);
        isSecure = store.SecureTurn();
    }
    ASSERT_FALSE(isSecure);
    EndTurn();
    EXPECT_TRUE(store.SecureTurn()); // what needs no disk goes on

    std::filesystem::remove(mDirectory / "disk/ballast");
    EXPECT_TRUE(store.Commit());

    EXPECT_THAT(capture.Take(), testing::HasSubstr(" cannot be saved: "));
    int value = 0;
    int time = 0;
    PreferenceStore next(mDirectory / "disk", mClock);
    EXPECT_EQ(next.Get("value", value), 0);
    EXPECT_EQ(next.Get("time", time), 0);
    EXPECT_EQ(value, last);
    EXPECT_EQ(time, last * 10);
}

TEST_F(PreferenceStoreTest, DiskThatIsFullFromTheStartIsAFailure)
{
    const MountedDisk disk(mDirectory / "disk", "size=128k");
    if (!disk.IsThere()) {
        GTEST_SKIP() << "no file system can be mounted here: " << disk.WhyNot();
    }
    FillDisk(mDirectory / "disk/ballast");
    StderrCapture capture;
    PreferenceStore store(mDirectory / "disk", mClock);
    int value = 5;
    EXPECT_EQ(store.Set("a", 1), -5);
    EXPECT_EQ(store.Get("a", value), -5);
    EXPECT_EQ(value, 5);
    EXPECT_THAT(capture.Take(), StartsWith("E platform: " + mDirectory.Path() +
                                           "/disk/preferences.db cannot be opened: "));

    std::filesystem::remove(mDirectory / "disk/ballast");
    RunWhileBusy();

    EXPECT_EQ(store.Set("a", 1), 0);
    EXPECT_TRUE(store.SecureTurn());
}

TEST_F(PreferenceStoreTest, ReadOnlyDiskIsAFailureThatLeavesEveryFileAsItIs)
{
    const std::string path = mDirectory / "disk";
    const MountedDisk disk(path, "size=1m");
    if (!disk.IsThere()) {
        GTEST_SKIP() << "no file system can be mounted here: " << disk.WhyNot();
    }
    {
        PreferenceStore store(path, mClock);
        ASSERT_EQ(store.Set("a", 1), 0);
    }
    const std::string before = ReadFile(path + "/preferences.db");
    ASSERT_TRUE(disk.Remount(true));
    const StderrCapture quiet;
    PreferenceStore store(path, mClock);
    int value = 5;
    bool exists = true;
    EXPECT_EQ(store.Set("a", 2), -5);
    EXPECT_FALSE(store.SecureTurn());
    EXPECT_NE(store.Get("a", value), -126);
    EXPECT_NE(store.Exists("a", exists), -126);
    EndTurn();
    EXPECT_TRUE(store.SecureTurn());
    EXPECT_TRUE(ReadFile(path + "/preferences.db") == before);

    ASSERT_TRUE(disk.Remount(false));

    EXPECT_EQ(store.Get("a", value), 0);
    EXPECT_EQ(value, 1);
    EXPECT_EQ(store.Set("a", 2), 0);
    EXPECT_TRUE(store.SecureTurn());
}

TEST_F(PreferenceStoreTest, DamagedFileOnAReadOnlyDiskIsAFailureAndStays)
{
    const std::string path = mDirectory / "disk";
    const MountedDisk disk(path, "size=1m");
    if (!disk.IsThere()) {
        GTEST_SKIP() << "no file system can be mounted here: " << disk.WhyNot();
    }
    WriteFile(path + "/preferences.db", "not a database");
    ASSERT_TRUE(disk.Remount(true));
    const StderrCapture quiet;
    PreferenceStore store(path, mClock);
    int value = 5;

    EXPECT_EQ(store.Get("a", value), -5);
    EXPECT_EQ(store.Set("a", 2), -5);

    EXPECT_EQ(ReadFile(path + "/preferences.db"), "not a database");
    ASSERT_TRUE(disk.Remount(false));
}

TEST_F(PreferenceStoreTest, FileThatNobodyMayWriteIsReadUntilItMayBeWritten)
{
    ASSERT_EQ(mStore->Set("a", 1), 0);
    mStore.reset();
    std::filesystem::permissions(mDirectory.Path(), std::filesystem::perms(0777));
    std::filesystem::permissions(File(), std::filesystem::perms(0444));
    const StderrCapture quiet;
    {
        const OrdinaryUser user;
        Restart();
        EXPECT_EQ(mStore->Set("a", 2), -5);
        EXPECT_NE(GetInt("a"), -126);
        EXPECT_FALSE(mStore->SecureTurn());
    }
    std::filesystem::permissions(File(), std::filesystem::perms(0666));
    std::filesystem::remove(File() + "-wal"); // made by the ordinary user
    std::filesystem::remove(File() + "-shm");
    RunWhileBusy();

    EXPECT_EQ(mStore->Set("a", 3), 0);
    EXPECT_TRUE(mStore->SecureTurn());
    EXPECT_THAT(Rows(), ElementsAre("a", "3"));
}

TEST_F(PreferenceStoreTest, FileThatNobodyMayReadIsAFailureAndStays)
{
    ASSERT_EQ(mStore->Set("a", 1), 0);
    mStore.reset();
    const std::string before = ReadFile(File());
    std::filesystem::permissions(mDirectory.Path(), std::filesystem::perms(0777));
    std::filesystem::permissions(File(), std::filesystem::perms(0));
    StderrCapture capture;
    {
        const OrdinaryUser user;
        Restart();
        EXPECT_EQ(GetInt("a"), -5);
        EXPECT_EQ(mStore->Set("a", 2), -5);
    }
    EXPECT_THAT(capture.Take(), StartsWith("E platform: " + File() + " cannot be opened: "));
    std::filesystem::permissions(File(), std::filesystem::perms(0600));
    EXPECT_TRUE(ReadFile(File()) == before);
    RunWhileBusy();
    EXPECT_EQ(GetInt("a"), 1);
}

// Things in the file's place.

TEST_F(PreferenceStoreTest, LinkInTheFilesPlaceIsAFailureAndItsTargetStays)
{
    mStore.reset();
    std::filesystem::remove(File());
    WriteFile(mDirectory / "target", "mine");
    std::filesystem::create_symlink(mDirectory / "target", File());
    StderrCapture capture;
    Restart();

    EXPECT_EQ(mStore->Set("a", 1), -5);
    EXPECT_EQ(GetInt("a"), -5);

    EXPECT_EQ(capture.Take(),
              "E platform: " + File() + " cannot be opened: it is not a regular file\n");
    EXPECT_EQ(ReadFile(mDirectory / "target"), "mine");
    EXPECT_THAT(FileNames(), ElementsAre("preferences.db", "target"));
}

TEST_F(PreferenceStoreTest, FifoInTheFilesPlaceIsAFailureAndHoldsNothingUp)
{
    mStore.reset();
    std::filesystem::remove(File());
    ASSERT_EQ(mkfifo(File().c_str(), 0600), 0);
    const StderrCapture quiet;
    Restart();

    EXPECT_EQ(mStore->Set("a", 1), -5);
    EXPECT_EQ(GetInt("a"), -5);

    EXPECT_THAT(FileNames(), ElementsAre("preferences.db"));
}

TEST_F(PreferenceStoreTest, DirectoryInTheLogsPlaceIsAFailureUntilItIsGone)
{
    ASSERT_EQ(mStore->Set("a", 1), 0);
    mStore.reset();
    const std::string before = ReadFile(File());
    std::filesystem::create_directory(File() + "-wal");
    const StderrCapture quiet;
    Restart();
    EXPECT_EQ(GetInt("a"), -5);
    EXPECT_EQ(mStore->Set("a", 2), -5);
    EXPECT_TRUE(ReadFile(File()) == before);

    std::filesystem::remove(File() + "-wal");
    RunWhileBusy();

    EXPECT_EQ(GetInt("a"), 1);
}

// Damage, place by place.

/** A database of several pages that is cut to a length. */
class TruncatedPreferencesTest : public PreferenceStoreTest,
                                 public testing::WithParamInterface<long>
{};

TEST_P(TruncatedPreferencesTest, IsSetAsideWhole)
{
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(mStore->Set("key" + std::to_string(i), std::string(100, 'x')), 0);
    }
    mStore.reset();
    const auto size = static_cast<long>(std::filesystem::file_size(File()));
    const long length = GetParam() > 0 ? GetParam() : size + GetParam();
    ASSERT_LT(length, size);
    std::filesystem::resize_file(File(), static_cast<std::uintmax_t>(length));
    ExpectSetAside();
}

// Lengths from the end are negative.
INSTANTIATE_TEST_SUITE_P(Lengths, TruncatedPreferencesTest,
                         testing::Values(1, 15, 16, 99, 100, 511, 512, 4095, 4096, 4097, 12288,
                                         14000, -4096, -1));

TEST_F(PreferenceStoreTest, SmallDatabaseWithoutItsLastByteIsSetAside)
{
    ASSERT_EQ(mStore->Set("a", 1), 0);
    mStore.reset();
    std::filesystem::resize_file(File(), std::filesystem::file_size(File()) - 1);
    EXPECT_EQ(ExpectSetAside(), "its last page is cut off");
}

TEST_F(PreferenceStoreTest, EveryDamagedByteOfTheHeadIsSurvivedAndNothingIsLost)
{
    ASSERT_EQ(mStore->Set("a", 1), 0);
    mStore.reset();
    const std::string good = ReadFile(File());
    const StderrCapture quiet;
    for (std::size_t i = 0; i < 120; ++i) {
        std::string damaged = good;
        damaged[i] = static_cast<char>(damaged[i] ^ 0x55);
        for (const std::string &name : FileNames()) {
            std::filesystem::remove(mDirectory / name);
        }
        WriteFile(File(), damaged);
        Restart();
        const int value = GetInt("a");
        mStore.reset();
        const auto aside = SetAsideNames();
        if (!aside.empty()) {
            EXPECT_EQ(value, -126) << i;
            EXPECT_TRUE(ReadFile(mDirectory / aside.front()) == damaged) << i;
        } else {
            EXPECT_TRUE(value == 1 || value == -5) << i << ": " << value;
        }
    }
}

TEST_F(PreferenceStoreTest, LogWithoutItsDatabaseIsSetAside)
{
    for (const bool isEmpty : {true, false}) {
        ASSERT_EQ(mStore->Set("a", 1), 0);
        ASSERT_TRUE(mStore->Commit());
        const Files killed = KilledNow();
        mStore.reset();
        Place(killed);
        if (isEmpty) {
            WriteFile(File(), "");
        } else {
            std::filesystem::remove(File());
        }
        StderrCapture capture;
        Restart();
        EXPECT_EQ(GetInt("a"), -126);
        const auto aside = SetAsideNames();
        ASSERT_FALSE(aside.empty());
        EXPECT_THAT(aside, testing::Contains(testing::EndsWith("-wal")));
        EXPECT_EQ(ReadFile(mDirectory / "preferences.db.corrupt-20260131T123456Z-wal"),
                  killed.mLog);
        EXPECT_THAT(capture.Take(), testing::HasSubstr("it is empty or gone, and its log is not"));
        mStore.reset();
        for (const std::string &name : FileNames()) {
            std::filesystem::remove(mDirectory / name);
        }
        Restart();
    }
}

/** What a killed service leaves: the values in the log, three transactions, the last one whole. */
class PreferenceLogTest : public PreferenceStoreTest
{
protected:
    void SetUp() override
    {
        // Into the database itself, so that the log begins with the values.
        Restart();
        for (int i = 1; i <= 3; ++i) {
            ASSERT_EQ(mStore->Set("value", i), 0);
            ASSERT_EQ(mStore->Set("time", i * 10), 0);
            ASSERT_TRUE(mStore->Commit());
        }
        mKilled = KilledNow();
        mStore.reset();
        ASSERT_EQ(mKilled.mLog.size(), kHead + 3 * kFrame);
    }

    void RestartWithLog(const std::string &log)
    {
        mStore.reset();
        for (const std::string &name : FileNames()) {
            std::filesystem::remove(mDirectory / name);
        }
        Place({mKilled.mDatabase, log});
        Restart();
    }

    void ExpectPair(int value)
    {
        EXPECT_EQ(GetInt("value"), value == 0 ? -126 : value);
        EXPECT_EQ(GetInt("time"), value == 0 ? -126 : value * 10);
    }

    static constexpr std::size_t kHead = 32;
    static constexpr std::size_t kFrame = 24 + kPageBytes;
    static constexpr char kCopy[] = "preferences.db.corrupt-20260131T123456Z-wal";

    Files mKilled;
};

TEST_F(PreferenceLogTest, WholeLogIsPlayed)
{
    StderrCapture capture;
    RestartWithLog(mKilled.mLog);
    ExpectPair(3);
    EXPECT_THAT(SetAsideNames(), IsEmpty());
    EXPECT_EQ(capture.Take(), "");
}

TEST_F(PreferenceLogTest, LogThatEndsAnywhereGivesTheLastWholePair)
{
    const StderrCapture quiet;
    for (std::size_t size = 0; size < mKilled.mLog.size(); size += size < kHead ? 1 : 97) {
        RestartWithLog(mKilled.mLog.substr(0, size));
        ExpectPair(size < kHead ? 0 : static_cast<int>((size - kHead) / kFrame));
        // Of what is no log at all a copy is kept.
        EXPECT_EQ(SetAsideNames().size(), size > 0 && size < kHead ? 1U : 0U) << size;
    }
}

TEST_F(PreferenceLogTest, LogWithADamagedHeadIsKeptAsACopy)
{
    std::string log = mKilled.mLog;
    log[9] = '\x7f';
    StderrCapture capture;
    RestartWithLog(log);
    ExpectPair(0);
    EXPECT_TRUE(ReadFile(mDirectory / kCopy) == log);
    EXPECT_EQ(capture.Take(), "E platform: " + File() + "-wal is damaged: a copy is kept as " +
                                  (mDirectory / kCopy) +
                                  ", the preferences are those before the damage\n");
    EXPECT_EQ(mStore->Set("value", 4), 0);
    EXPECT_TRUE(mStore->SecureTurn());
    EXPECT_THAT(Rows(), ElementsAre("value", "4"));
}

TEST_F(PreferenceLogTest, LogThatIsDamagedInItsMiddleCountsUpToThereAndIsKeptAsACopy)
{
    std::string log = mKilled.mLog;
    log[kHead + kFrame + 2000] ^= '\x55';
    const StderrCapture quiet;
    RestartWithLog(log);
    ExpectPair(1);
    EXPECT_TRUE(ReadFile(mDirectory / kCopy) == log);

    // Once is enough, also when the process is killed before it has written anything.
    const Files killed = KilledNow();
    mStore.reset();
    Place(killed);
    Restart();
    ExpectPair(1);
    EXPECT_THAT(SetAsideNames(), ElementsAre(kCopy));
}

TEST_F(PreferenceLogTest, LogWhoseLastTransactionIsDamagedIsThatOfAKilledProcess)
{
    std::string log = mKilled.mLog;
    log[log.size() - 100] ^= '\x55';
    StderrCapture capture;
    RestartWithLog(log);
    ExpectPair(2);
    EXPECT_THAT(SetAsideNames(), IsEmpty());
    EXPECT_EQ(capture.Take(), "");
}

TEST_F(PreferenceLogTest, GarbageInTheLogsPlaceIsKeptAsACopy)
{
    const StderrCapture quiet;
    for (const std::string &garbage :
         {std::string("text"), std::string(5000, '\xff'), std::string(40000, '\0')}) {
        RestartWithLog(garbage);
        ExpectPair(0);
        EXPECT_TRUE(ReadFile(mDirectory / kCopy) == garbage);
    }
}

TEST_F(PreferenceLogTest, LogOfAnotherApplicationDoesNoHarm)
{
    mStore.reset();
    const std::string other = mDirectory / "other.db";
    std::string foreign;
    {
        sqlite3 *opened = nullptr;
        ASSERT_EQ(sqlite3_open(other.c_str(), &opened), SQLITE_OK);
        const SqliteHandle database(opened);
        ASSERT_EQ(SqliteExecute(opened, "PRAGMA journal_mode=WAL; CREATE TABLE other(x);"
                                        "INSERT INTO other VALUES('theirs')"),
                  SQLITE_OK);
        foreign = ReadFile(other + "-wal");
    }
    const StderrCapture quiet;
    RestartWithLog(foreign);

    // It is valid by itself, so it makes another database of the file: both are set aside.
    EXPECT_EQ(GetInt("value"), -126);
    EXPECT_TRUE(ReadFile(mDirectory / "preferences.db.corrupt-20260131T123456Z") ==
                mKilled.mDatabase);
    EXPECT_TRUE(ReadFile(mDirectory / kCopy) == foreign);
    EXPECT_EQ(mStore->Set("value", 4), 0);
    EXPECT_TRUE(mStore->SecureTurn());
}

TEST_F(PreferenceLogTest, DamagedIndexOfTheLogIsMadeAnew)
{
    for (const std::string &index :
         {std::string(), std::string("text"), std::string(32768, '\xa5')}) {
        mStore.reset();
        Place(mKilled);
        WriteFile(File() + "-shm", index);
        StderrCapture capture;
        Restart();
        ExpectPair(3);
        EXPECT_EQ(capture.Take(), "");
    }
    EXPECT_THAT(SetAsideNames(), IsEmpty());
}

TEST_F(PreferenceLogTest, DamagedLogThatCannotBeCopiedIsLeftAlone)
{
    const std::string path = mDirectory / "disk";
    const MountedDisk disk(path, "size=48k");
    if (!disk.IsThere()) {
        GTEST_SKIP() << "no file system can be mounted here: " << disk.WhyNot();
    }
    std::string log = mKilled.mLog;
    log[9] = '\x7f';
    WriteFile(path + "/preferences.db", mKilled.mDatabase);
    WriteFile(path + "/preferences.db-wal", log);
    const StderrCapture quiet;
    {
        // The index of the log is to find its place.
        WriteFile(path + "/preferences.db-shm", std::string(4096, '\0'));
        FillDisk(path + "/ballast");
        PreferenceStore store(path, mClock);
        int value = 5;
        EXPECT_EQ(store.Get("value", value), -5);
        EXPECT_EQ(store.Set("value", 6), -5);
    }
    EXPECT_TRUE(ReadFile(path + "/preferences.db") == mKilled.mDatabase);
    EXPECT_TRUE(ReadFile(path + "/preferences.db-wal") == log);
}

} // namespace ParvanePlatform
