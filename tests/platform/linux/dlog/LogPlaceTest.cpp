#include "LogPlace.h"

#include <gtest/gtest.h>

namespace ParvanePlatform {

TEST(LogPlaceTest, MessageOfTheServiceTellsFileFunctionAndLine)
{
    const auto place = FindLogPlace("ParvaneMain: app_create(41) > \033[1;35m ###\033[0;m");
    ASSERT_TRUE(place.has_value());
    EXPECT_EQ(place->mFile, "ParvaneMain");
    EXPECT_EQ(place->mFunction, "app_create");
    EXPECT_EQ(place->mLine, 41);
}

TEST(LogPlaceTest, FunctionMayHaveAnUnusualName)
{
    const auto destructor = FindLogPlace("HRMController: ~HRMController(7) > gone");
    ASSERT_TRUE(destructor.has_value());
    EXPECT_EQ(destructor->mFunction, "~HRMController");

    const auto call = FindLogPlace("A: operator()(1) > text");
    ASSERT_TRUE(call.has_value());
    EXPECT_EQ(call->mFunction, "operator()");
    EXPECT_EQ(call->mLine, 1);
}

TEST(LogPlaceTest, RestOfTheMessageDoesNotMatter)
{
    const auto place = FindLogPlace("A: B(2) > C: D(3) > text");
    ASSERT_TRUE(place.has_value());
    EXPECT_EQ(place->mFile, "A");
    EXPECT_EQ(place->mFunction, "B");
    EXPECT_EQ(place->mLine, 2);
    EXPECT_TRUE(FindLogPlace("A: B(2) > ").has_value());
}

TEST(LogPlaceTest, OtherMessagesTellNoPlace)
{
    for (const char *message : {"",
                                "text",
                                ": ",
                                "A: ",
                                "A: text",
                                "A: B(2)",
                                "A: B(2) >",
                                "A: B 2) > text",
                                "A: (2) > text",
                                ": B(2) > text",
                                "A: B() > text",
                                "A: B(x) > text",
                                "A: B(-2) > text",
                                "A: B(99999999999) > text",
                                "A: B(2 ) > text",
                                "A C: B(2) > text",
                                "A: B C(2) > text",
                                "A: B\n(2) > text",
                                "A\033[0m: B(2) > text",
                                "A:B(2) > text"}) {
        EXPECT_FALSE(FindLogPlace(message).has_value()) << message;
    }
}

} // namespace ParvanePlatform
