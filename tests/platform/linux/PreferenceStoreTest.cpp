#include "preference/PreferenceStore.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <limits>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <vector>

#include <glib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

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

    /** Starts with a file that must be set aside, and expects that. @return the error line */
    std::string ExpectSetAside()
    {
        mStore.reset();
        const std::string before = ReadFile(File());
        StderrCapture capture;
        Restart();
        const std::string log = capture.Take();
        const std::string aside = mDirectory / "preferences.db.corrupt-20260131T123456Z";
        EXPECT_EQ(ReadFile(aside), before);
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

TEST_F(PreferenceStoreTest, NewerVersionIsSetAside)
{
    ASSERT_EQ(mStore->Set("a", 1), 0);
    mStore.reset();
    Sql("PRAGMA user_version=2");
    EXPECT_EQ(ExpectSetAside(), "its layout has version 2, this program knows 1");
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
    EXPECT_THAT(capture.Take(),
                StartsWith("E platform: " + File() + " cannot be opened: unable to open"));
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

} // namespace ParvanePlatform
