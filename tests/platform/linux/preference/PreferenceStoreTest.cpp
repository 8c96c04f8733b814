#include "PreferenceStore.h"

#include <csignal>
#include <filesystem>
#include <limits>
#include <string>
#include <sys/resource.h>
#include <utility>
#include <vector>

#include <glib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "PreferenceTest.h"
#include "TestSupport.h"

namespace ParvanePlatform {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

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

} // namespace

/** Turns, and what is written in them. */
class PreferenceStoreTest : public PreferenceTest
{};

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

} // namespace ParvanePlatform
