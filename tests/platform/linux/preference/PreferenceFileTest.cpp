#include "PreferenceFile.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "Files.h"
#include "PreferenceTest.h"
#include "TestSupport.h"

namespace ParvanePlatform {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

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

/** The file under a store, damaged, locked or unreachable in every way that is known. */
class PreferenceFileTest : public PreferenceTest
{
protected:
    std::vector<std::string> FileNames() const
    {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(mDirectory.Path())) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
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
};

TEST_F(PreferenceFileTest, FilesAreForTheOwnerAlone)
{
    EXPECT_EQ(ModeOf(File()), 0600U);
    EXPECT_EQ(ModeOf(File() + "-wal"), 0600U);
}

TEST_F(PreferenceFileTest, RowsThatNobodyHereWroteAreChecked)
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

TEST_F(PreferenceFileTest, FileThatIsNoDatabaseIsSetAside)
{
    mStore.reset();
    WriteFile(File(), "these are not the preferences that you are looking for");
    EXPECT_EQ(ExpectSetAside(), "file is not a database");
}

TEST_F(PreferenceFileTest, DamagedPagesAreSetAside)
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

TEST_F(PreferenceFileTest, TruncatedFileIsSetAside)
{
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(mStore->Set("key" + std::to_string(i), std::string(100, 'x')), 0);
    }
    mStore.reset();
    std::filesystem::resize_file(File(), kPageBytes * 3);
    EXPECT_EQ(ExpectSetAside(), "database disk image is malformed");
}

TEST_F(PreferenceFileTest, OtherLayoutIsSetAside)
{
    mStore.reset();
    std::filesystem::remove(File());
    Sql("CREATE TABLE preferences(key TEXT PRIMARY KEY, value TEXT); PRAGMA user_version=1;");
    EXPECT_EQ(ExpectSetAside(), "its layout is not that of preferences");
}

TEST_F(PreferenceFileTest, ForeignDatabaseIsSetAside)
{
    mStore.reset();
    std::filesystem::remove(File());
    Sql("CREATE TABLE other(x)");
    EXPECT_EQ(ExpectSetAside(), "its layout has version 0, this program knows 1");
}

TEST_F(PreferenceFileTest, OlderVersionIsSetAside)
{
    mStore.reset();
    Sql("PRAGMA user_version=0");
    EXPECT_EQ(ExpectSetAside(), "its layout has version 0, this program knows 1");
}

TEST_F(PreferenceFileTest, NewerVersionStaysAsItIsAndIsGoodForTheNewerProgram)
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

TEST_F(PreferenceFileTest, LogOfANewerVersionStaysToo)
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

TEST_F(PreferenceFileTest, HigherVersionOfAnotherApplicationIsSetAside)
{
    mStore.reset();
    std::filesystem::remove(File());
    Sql("CREATE TABLE other(x); PRAGMA user_version=5");
    EXPECT_EQ(ExpectSetAside(), "its layout has version 5, this program knows 1");
}

TEST_F(PreferenceFileTest, EmptyFileIsANewDatabase)
{
    mStore.reset();
    WriteFile(File(), "");
    StderrCapture capture;
    Restart();
    EXPECT_EQ(mStore->Set("a", 1), 0);
    EXPECT_EQ(capture.Take(), "");
}

TEST_F(PreferenceFileTest, SetAsideFilesNeverReplaceEachOther)
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

TEST_F(PreferenceFileTest, DamageThatIsFoundLaterIsSetAsideAndLosesNoNewWrite)
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

TEST_F(PreferenceFileTest, ClosedDirectoryIsAFailureUntilItOpens)
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

TEST_F(PreferenceFileTest, DirectoryInTheFilesPlaceIsAFailure)
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

TEST_F(PreferenceFileTest, LockedDatabaseIsAFailureAfterAShortWhile)
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

TEST_F(PreferenceFileTest, LogDoesNotGrowWithoutEnd)
{
    std::uintmax_t largest = 0;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(mStore->Set("value", i), 0);
        ASSERT_TRUE(mStore->SecureTurn());
        largest = std::max(largest, std::filesystem::file_size(File() + "-wal"));
    }
    EXPECT_LT(largest, 512U * 1024U);
}

TEST_F(PreferenceFileTest, OrderlyEndLeavesTheDatabaseAlone)
{
    ASSERT_EQ(mStore->Set("value", 1), 0);
    mStore.reset();
    EXPECT_THAT(FileNames(), ElementsAre("preferences.db"));
}

// Another program's locks.

TEST_F(PreferenceFileTest, ExclusiveLockOfAnotherProcessIsAFailureAndGoesByItself)
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

TEST_F(PreferenceFileTest, DatabaseThatIsLockedWhenItIsOpenedIsAFailureUntilItIsFree)
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

TEST_F(PreferenceFileTest, FullDiskIsAFailureThatEndsWithTheRoom)
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

TEST_F(PreferenceFileTest, DiskThatIsFullFromTheStartIsAFailure)
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

TEST_F(PreferenceFileTest, ReadOnlyDiskIsAFailureThatLeavesEveryFileAsItIs)
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

TEST_F(PreferenceFileTest, DamagedFileOnAReadOnlyDiskIsAFailureAndStays)
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

TEST_F(PreferenceFileTest, FileThatNobodyMayWriteIsReadUntilItMayBeWritten)
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

TEST_F(PreferenceFileTest, FileThatNobodyMayReadIsAFailureAndStays)
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

TEST_F(PreferenceFileTest, LinkInTheFilesPlaceIsAFailureAndItsTargetStays)
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

TEST_F(PreferenceFileTest, FifoInTheFilesPlaceIsAFailureAndHoldsNothingUp)
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

TEST_F(PreferenceFileTest, DirectoryInTheLogsPlaceIsAFailureUntilItIsGone)
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
class TruncatedPreferencesTest : public PreferenceFileTest, public testing::WithParamInterface<long>
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

TEST_F(PreferenceFileTest, SmallDatabaseWithoutItsLastByteIsSetAside)
{
    ASSERT_EQ(mStore->Set("a", 1), 0);
    mStore.reset();
    std::filesystem::resize_file(File(), std::filesystem::file_size(File()) - 1);
    EXPECT_EQ(ExpectSetAside(), "its last page is cut off");
}

TEST_F(PreferenceFileTest, EveryDamagedByteOfTheHeadIsSurvivedAndNothingIsLost)
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

TEST_F(PreferenceFileTest, LogWithoutItsDatabaseIsSetAside)
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
class PreferenceLogTest : public PreferenceFileTest
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
    static constexpr char kSetAsideLog[] = "preferences.db.corrupt-20260131T123456Z-wal";

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
        EXPECT_THAT(SetAsideNames(), IsEmpty()) << size;
    }
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
    EXPECT_TRUE(ReadFile(mDirectory / kSetAsideLog) == foreign);
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

TEST_F(PreferenceLogTest, DamagedLogCountsUpToItsDamage)
{
    std::string head = mKilled.mLog;
    head[9] = '\x7f';
    std::string middle = mKilled.mLog;
    middle[kHead + kFrame + 2000] ^= '\x55';
    const std::pair<std::string, int> cases[] = {{head, 0},
                                                 {middle, 1},
                                                 {"text", 0},
                                                 {std::string(5000, '\xff'), 0},
                                                 {std::string(40000, '\0'), 0}};
    for (const auto &[log, last] : cases) {
        StderrCapture capture;
        RestartWithLog(log);
        ExpectPair(last);
        EXPECT_EQ(mStore->Set("value", 4), 0);
        EXPECT_EQ(mStore->Set("time", 40), 0);
        EXPECT_TRUE(mStore->SecureTurn());
        Place(KilledNow());
        Restart();
        ExpectPair(4);
        EXPECT_EQ(capture.Take(), "");
    }
    EXPECT_THAT(SetAsideNames(), IsEmpty());
}

TEST_F(PreferenceLogTest, PageThatIsCutOffInTheFileIsMendedFromTheLog)
{
    mKilled.mDatabase.pop_back();
    StderrCapture capture;
    RestartWithLog(mKilled.mLog);
    ExpectPair(3);
    Restart();
    ExpectPair(3);
    EXPECT_EQ(capture.Take(), "");
}

TEST_F(PreferenceLogTest, PageThatIsCutOffAndNotInTheLogIsDamage)
{
    mKilled.mDatabase.pop_back();
    StderrCapture capture;
    RestartWithLog("text");
    ExpectPair(0);
    EXPECT_THAT(capture.Take(), testing::HasSubstr("its last page is cut off"));
    EXPECT_TRUE(ReadFile(mDirectory / "preferences.db.corrupt-20260131T123456Z") ==
                mKilled.mDatabase);
    EXPECT_EQ(ReadFile(mDirectory / kSetAsideLog), "text");
}

} // namespace ParvanePlatform
