#include "Queue.h"

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ParvaneHub {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class QueueTest : public ::testing::Test
{
public:
    QueueTest()
    {
        std::string name =
            (std::filesystem::temp_directory_path() / "parvane-queue-XXXXXX").string();
        mFolder = ::mkdtemp(name.data());
    }
    ~QueueTest() override { std::filesystem::remove_all(mFolder); }

protected:
    Queue Open(std::int64_t bytes = 1000000) const
    {
        return {mFolder / "queue.db", {bytes, std::chrono::hours{1}}};
    }

    static std::vector<std::string> Bodies(Queue &queue, std::int64_t after = 0)
    {
        std::vector<std::string> bodies;
        for (const Queued &queued : queue.After(after, 1000)) {
            bodies.push_back(queued.mMessage.mBody);
        }
        return bodies;
    }

    std::filesystem::path mFolder;
};

TEST_F(QueueTest, WhatIsCommittedIsThereInOrderAlsoAfterwards)
{
    {
        Queue queue = Open();
        queue.Put({"t/a", "{\"a\":1}", 7, true});
        queue.Put({"t/b", "{}", 0, false});
        EXPECT_THAT(Bodies(queue), IsEmpty());
        EXPECT_EQ(queue.Commit(), "");
        queue.Put({"t/c", "lost", 0, false});
    }
    Queue queue = Open();
    const auto messages = queue.After(0, 10);
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(messages[0].mMessage.mTopic, "t/a");
    EXPECT_EQ(messages[0].mMessage.mAtMs, 7);
    EXPECT_TRUE(messages[0].mMessage.mIsRetained);
    EXPECT_EQ(messages[1].mMessage.mBody, "{}");
    EXPECT_EQ(queue.GetCounts().mMessages, 2);
}

TEST_F(QueueTest, APlaceIsNotUsedTwiceByOneProcess)
{
    Queue queue = Open();
    queue.Put({"t", "1", 0, false});
    queue.Commit();
    const auto place = queue.After(0, 1).front().mPlace;
    queue.Remove(place);
    queue.Put({"t", "2", 0, false});
    queue.Commit();
    EXPECT_THAT(Bodies(queue, place), ElementsAre("2"));
    EXPECT_EQ(queue.GetCounts().mMessages, 1);
}

TEST_F(QueueTest, BeyondItsSizeTheOldestAreDroppedAndCounted)
{
    Queue queue = Open(200);
    for (const char *body : {"1", "2", "3", "4", "5", "6"}) {
        queue.Put({"t", body, 0, false});
        queue.Commit();
    }
    EXPECT_THAT(Bodies(queue), ElementsAre("3", "4", "5", "6"));
    EXPECT_EQ(queue.GetCounts().mDroppedForSize, 2);
    EXPECT_EQ(queue.GetCounts().mBytes, 4 * 42);
}

TEST_F(QueueTest, WhatIsTooOldIsDroppedAndCounted)
{
    Queue queue(mFolder / "queue.db", {1000000, std::chrono::seconds{-1}});
    queue.Put({"t", "1", 0, false});
    EXPECT_EQ(queue.Commit(), "");
    EXPECT_THAT(Bodies(queue), IsEmpty());
    EXPECT_EQ(queue.GetCounts().mDroppedForAge, 1);
    EXPECT_EQ(queue.GetCounts().mBytes, 0);
}

TEST_F(QueueTest, StepsAreKeptUntilTheWatchIsForgotten)
{
    Queue queue = Open();
    queue.SaveSteps("anna", "1");
    queue.SaveSteps("ben", "2");
    queue.Commit();
    queue.SaveSteps("anna", "3");
    queue.Forget("ben");
    queue.Commit();
    EXPECT_THAT(queue.LoadSteps(), ElementsAre(::testing::Pair("anna", "3")));
}

} // namespace
} // namespace ParvaneHub
