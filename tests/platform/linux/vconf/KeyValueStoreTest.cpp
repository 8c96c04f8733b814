#include "KeyValueStore.h"

#include <cstdio>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TestSupport.h"

namespace ParvanePlatform {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kKey[] = "memory/private/tal/conn_status";

} // namespace

/** Notes what the watched key reads in each callback; -1 when it cannot be read. */
class KeyValueStoreTest : public testing::Test
{
protected:
    KeyValueStoreTest() : mStore(std::make_unique<KeyValueStore>(mRuntime.Path(), mState.Path())) {}

    static void OnChanged(vconf_node *node, void *userData) noexcept
    {
        auto *self = static_cast<KeyValueStoreTest *>(userData);
        EXPECT_NE(node, nullptr);
        int value = -1;
        self->mStore->GetInt(kKey, value);
        self->mSeen.push_back(value);
        if (self->mOnChanged) {
            self->mOnChanged();
        }
    }

    void Watch() { ASSERT_EQ(mStore->Watch(kKey, OnChanged, this), 0); }

    int Get(const std::string &key)
    {
        int value = 12345;
        const int result = mStore->GetInt(key, value);
        EXPECT_TRUE(result == 0 || value == 12345);
        return result == 0 ? value : result;
    }

    std::string File() const { return mRuntime / kKey; }

    void MakeDirectory() const
    {
        std::filesystem::create_directories(mRuntime / "memory/private/tal");
    }

    /** Waits for the next callbacks, and then for the end of all that follows from them. */
    std::vector<int> WaitForChange()
    {
        EXPECT_TRUE(RunUntil([this] { return !mSeen.empty(); }));
        RunWhileBusy();
        return std::exchange(mSeen, {});
    }

    TemporaryDirectory mRuntime;
    TemporaryDirectory mState;
    std::unique_ptr<KeyValueStore> mStore;
    std::vector<int> mSeen;
    std::function<void()> mOnChanged;
};

TEST_F(KeyValueStoreTest, MemoryKeysLieBelowTheRunTimeDirectory)
{
    EXPECT_EQ(mStore->SetInt(kKey, 1), 0);
    EXPECT_EQ(ReadFile(File()), "1\n");
    EXPECT_EQ(ModeOf(File()), 0600U);
    EXPECT_EQ(ModeOf(mRuntime / "memory/private"), 0700U);
    EXPECT_EQ(Get(kKey), 1);
}

TEST_F(KeyValueStoreTest, OtherKeysLieBelowTheStateDirectory)
{
    EXPECT_EQ(mStore->SetInt("db/memory/x", -5), 0);
    EXPECT_EQ(ReadFile(mState / "db/memory/x"), "-5\n");
    EXPECT_EQ(mStore->SetInt("memory", 3), 0);
    EXPECT_EQ(ReadFile(mState / "memory"), "3\n");
}

TEST_F(KeyValueStoreTest, IntIsDecimalTextWithOrWithoutALineEnd)
{
    const std::vector<std::pair<std::string, int>> cases = {
        {"1", 1},
        {"1\n", 1},
        {"-2147483648", std::numeric_limits<int>::min()},
        {"2147483647\n", std::numeric_limits<int>::max()},
        {"007", 7},
        {"", -74},
        {"\n", -74},
        {"1\n\n", -74},
        {" 1", -74},
        {"1 ", -74},
        {"+1", -74},
        {"0x1", -74},
        {"1.0", -74},
        {"2147483648", -74},
        {std::string("1\0", 2), -74},
        {std::string(65, '0'), -74}};
    for (const auto &[content, expected] : cases) {
        WriteFile(mState / "k", content);
        EXPECT_EQ(Get("k"), expected) << '"' << content << '"';
    }
}

TEST_F(KeyValueStoreTest, MissingKeysAndDirectoriesAreTold)
{
    EXPECT_EQ(Get("none"), -2);
    EXPECT_EQ(Get("none/below"), -2);
    std::filesystem::create_directory(mState / "directory");
    EXPECT_EQ(Get("directory"), -74);
    WriteFile(mState / "file", "1");
    EXPECT_EQ(Get("file/below"), -2);
}

TEST_F(KeyValueStoreTest, BadKeysAreRefusedEverywhere)
{
    const std::vector<std::string> keys = {"",
                                           "/a",
                                           "a/",
                                           "a//b",
                                           ".",
                                           "..",
                                           "a/./b",
                                           "memory/../../x",
                                           "a/..",
                                           "../a",
                                           std::string("a\0b", 3),
                                           std::string(256, 'k')};
    for (const std::string &key : keys) {
        int value = 5;
        EXPECT_EQ(mStore->GetInt(key, value), -22) << key;
        EXPECT_EQ(mStore->SetInt(key, 1), -22) << key;
        EXPECT_EQ(mStore->Watch(key, OnChanged, this), -22) << key;
        EXPECT_EQ(value, 5);
    }
    EXPECT_EQ(Get("..a"), -2);
    EXPECT_EQ(Get(std::string(255, 'k')), -2);
    EXPECT_EQ(mStore->Watch("k", nullptr, this), -22);
}

TEST_F(KeyValueStoreTest, OwnChangeIsToldInTheNextTurn)
{
    Watch();
    EXPECT_EQ(mStore->SetInt(kKey, 1), 0);
    EXPECT_THAT(mSeen, IsEmpty());
    EXPECT_THAT(WaitForChange(), ElementsAre(1));
    EXPECT_EQ(mStore->SetInt(kKey, 0), 0);
    EXPECT_THAT(WaitForChange(), ElementsAre(0));
}

TEST_F(KeyValueStoreTest, SettingWhatIsThereIsNoChange)
{
    ASSERT_EQ(mStore->SetInt(kKey, 1), 0);
    Watch();
    EXPECT_EQ(mStore->SetInt(kKey, 1), 0);
    RunWhileBusy();
    EXPECT_THAT(mSeen, IsEmpty());
}

TEST_F(KeyValueStoreTest, DeliveredIsCalledAfterTheWatchers)
{
    Watch();
    bool isDelivered = false;
    mOnChanged = [&isDelivered] { EXPECT_FALSE(isDelivered); };
    ASSERT_EQ(mStore->SetInt(kKey, 1, [&isDelivered] { isDelivered = true; }), 0);
    EXPECT_FALSE(isDelivered);
    EXPECT_TRUE(RunUntil([&isDelivered] { return isDelivered; }));
    EXPECT_THAT(mSeen, ElementsAre(1));
}

TEST_F(KeyValueStoreTest, DeliveredIsCalledWithoutAChangeAndAfterAFailure)
{
    int delivered = 0;
    ASSERT_EQ(mStore->SetInt(kKey, 1), 0);
    EXPECT_EQ(mStore->SetInt(kKey, 1, [&delivered] { ++delivered; }), 0);
    EXPECT_TRUE(RunUntil([&delivered] { return delivered == 1; }));

    WriteFile(mState / "file", "");
    StderrCapture capture;
    EXPECT_EQ(mStore->SetInt("file/below", 1, [&delivered] { ++delivered; }), -5);
    EXPECT_TRUE(RunUntil([&delivered] { return delivered == 2; }));
    EXPECT_EQ(capture.Take(),
              "E platform: cannot set " + (mState / "file/below") + " to 1: Not a directory\n");
}

TEST_F(KeyValueStoreTest, SetFromACallbackIsToldInATurnOfItsOwn)
{
    Watch();
    mOnChanged = [this] {
        if (mSeen.size() == 1) {
            EXPECT_EQ(mStore->SetInt(kKey, 0), 0);
            EXPECT_EQ(mSeen.size(), 1U);
        }
    };
    EXPECT_EQ(mStore->SetInt(kKey, 1), 0);
    EXPECT_TRUE(RunUntil([this] { return mSeen.size() == 2; }));
    RunWhileBusy();
    EXPECT_THAT(mSeen, ElementsAre(1, 0));
}

TEST_F(KeyValueStoreTest, ForeignWriteInPlaceIsTold)
{
    ASSERT_EQ(mStore->SetInt(kKey, 1), 0);
    Watch();
    WriteFile(File(), "0\n");
    EXPECT_THAT(WaitForChange(), ElementsAre(0));
    WriteFile(File(), "1");
    EXPECT_THAT(WaitForChange(), ElementsAre(1));
    WriteFile(File(), "1\n");
    RunWhileBusy();
    EXPECT_THAT(mSeen, IsEmpty());
}

TEST_F(KeyValueStoreTest, ForeignRenameOverTheFileIsTold)
{
    ASSERT_EQ(mStore->SetInt(kKey, 1), 0);
    Watch();
    WriteFile(mRuntime / "new", "0");
    ASSERT_EQ(std::rename((mRuntime / "new").c_str(), File().c_str()), 0);
    EXPECT_THAT(WaitForChange(), ElementsAre(0));
}

TEST_F(KeyValueStoreTest, DeletionAndReturnAreTold)
{
    ASSERT_EQ(mStore->SetInt(kKey, 1), 0);
    Watch();
    ASSERT_TRUE(std::filesystem::remove(File()));
    EXPECT_THAT(WaitForChange(), ElementsAre(-1));
    WriteFile(File(), "1");
    EXPECT_THAT(WaitForChange(), ElementsAre(1));
}

TEST_F(KeyValueStoreTest, VanishingAndReturningDirectoriesAreFollowed)
{
    ASSERT_EQ(mStore->SetInt(kKey, 1), 0);
    Watch();
    std::filesystem::remove_all(mRuntime / "memory");
    EXPECT_THAT(WaitForChange(), ElementsAre(-1));
    MakeDirectory();
    RunWhileBusy();
    WriteFile(File(), "0");
    EXPECT_THAT(WaitForChange(), ElementsAre(0));
    std::filesystem::rename(mRuntime / "memory/private", mRuntime / "memory/elsewhere");
    EXPECT_THAT(WaitForChange(), ElementsAre(-1));
    WriteFile(mRuntime / "memory/elsewhere/tal/conn_status", "1");
    RunWhileBusy();
    EXPECT_THAT(mSeen, IsEmpty());
    std::filesystem::rename(mRuntime / "memory/elsewhere", mRuntime / "memory/private");
    EXPECT_THAT(WaitForChange(), ElementsAre(1));
}

TEST_F(KeyValueStoreTest, KeyThatAppearsWithItsDirectoriesIsTold)
{
    Watch();
    MakeDirectory();
    WriteFile(File(), "1");
    EXPECT_THAT(WaitForChange(), ElementsAre(1));
}

TEST_F(KeyValueStoreTest, OwnWriteMakesMissingDirectoriesAgain)
{
    ASSERT_EQ(mStore->SetInt(kKey, 1), 0);
    Watch();
    std::filesystem::remove_all(mRuntime / "memory");
    EXPECT_EQ(mStore->SetInt(kKey, 0), 0);
    EXPECT_THAT(WaitForChange(), ElementsAre(0));
    WriteFile(File(), "1");
    EXPECT_THAT(WaitForChange(), ElementsAre(1));
}

TEST_F(KeyValueStoreTest, EachWatcherIsCalledOnce)
{
    Watch();
    Watch();
    EXPECT_EQ(mStore->SetInt(kKey, 1), 0);
    EXPECT_THAT(WaitForChange(), ElementsAre(1, 1));
}

TEST_F(KeyValueStoreTest, WatcherMayAddAWatcher)
{
    Watch();
    mOnChanged = [this] {
        mOnChanged = nullptr;
        EXPECT_EQ(mStore->Watch(kKey, OnChanged, this), 0);
        EXPECT_EQ(mStore->Watch("memory/another", OnChanged, this), 0);
    };
    EXPECT_EQ(mStore->SetInt(kKey, 1), 0);
    EXPECT_THAT(WaitForChange(), ElementsAre(1));
    EXPECT_EQ(mStore->SetInt(kKey, 0), 0);
    EXPECT_THAT(WaitForChange(), ElementsAre(0, 0));
}

TEST_F(KeyValueStoreTest, WatchingDoesNotWakeTheLoop)
{
    Watch();
    RunWhileBusy();
    EXPECT_EQ(NextWakeMs(), -1);
}

TEST_F(KeyValueStoreTest, EndWithAChangeUnderWayIsClean)
{
    Watch();
    EXPECT_EQ(mStore->SetInt(kKey, 1), 0);
    mStore.reset();
    RunWhileBusy();
    EXPECT_THAT(mSeen, IsEmpty());
}

} // namespace ParvanePlatform
