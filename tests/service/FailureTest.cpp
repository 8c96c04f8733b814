#include "Failure.h"

#include <string>

#include <gtest/gtest.h>

namespace Parvane {
namespace {

std::string TextOf(const char *function, const char *label)
{
    try {
        ThrowFailure(function, label);
    } catch (const std::runtime_error &error) {
        return error.what();
    }
}

TEST(FailureTest, TextIsTheFunctionInBracketsAndTheLabel)
{
    EXPECT_EQ("[SendToHost]mIsServiceConnected is false",
              TextOf("SendToHost", "mIsServiceConnected is false"));
}

TEST(FailureTest, LabelIsTakenAsItIs)
{
    EXPECT_EQ("[CreateChannel] ChannelDesc calloc() failed\n",
              TextOf("CreateChannel", " ChannelDesc calloc() failed\n"));
    EXPECT_EQ("[]%d %s", TextOf("", "%d %s"));
}

} // namespace
} // namespace Parvane
