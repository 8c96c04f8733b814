#include "LineWriter.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <signal.h> // NOLINT(modernize-deprecated-headers): sigaction is POSIX
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include "UniqueFd.h"

namespace ParvaneHost {
namespace {

class LineWriterTest : public testing::Test
{
public:
    ~LineWriterTest() override { ::sigaction(SIGPIPE, &mBefore, nullptr); }

protected:
    LineWriterTest()
    {
        struct sigaction ignore = {};
        ignore.sa_handler = SIG_IGN;
        ::sigaction(SIGPIPE, &ignore, &mBefore);
        std::array<int, 2> ends{-1, -1};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        mReadEnd = Parvane::UniqueFd(ends[0]);
        mWriteEnd = Parvane::UniqueFd(ends[1]);
    }

    struct sigaction mBefore = {};
    Parvane::UniqueFd mReadEnd;
    Parvane::UniqueFd mWriteEnd;
};

TEST_F(LineWriterTest, EveryLineIsThereAtOnce)
{
    LineWriter writer(mWriteEnd.Get());
    std::array<char, 64> text{};

    EXPECT_TRUE(writer.Write("one"));
    EXPECT_EQ(::read(mReadEnd.Get(), text.data(), text.size()), 4);
    EXPECT_EQ(std::string(text.data(), 4), "one\n");
    EXPECT_TRUE(writer.Write(""));
    EXPECT_EQ(::read(mReadEnd.Get(), text.data(), text.size()), 1);
    EXPECT_EQ(writer.FailureCode(), 0);
}

TEST_F(LineWriterTest, AReaderThatHasGoneIsRemembered)
{
    LineWriter writer(mWriteEnd.Get());
    mReadEnd.Reset();

    EXPECT_FALSE(writer.Write("one"));
    EXPECT_EQ(writer.FailureCode(), EPIPE);
    EXPECT_FALSE(writer.Write("two"));
}

TEST_F(LineWriterTest, AFullDeviceIsNamed)
{
    const Parvane::UniqueFd full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    LineWriter writer(full.Get());

    EXPECT_FALSE(writer.Write("one"));
    EXPECT_EQ(writer.FailureCode(), ENOSPC);
}

} // namespace
} // namespace ParvaneHost
