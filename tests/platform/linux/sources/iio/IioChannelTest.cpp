#include "IioChannel.h"

#include <filesystem>
#include <string>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "IioTree.h"

namespace ParvanePlatform {

namespace {

using State = IioChannel::State;

constexpr char kFile[] = "in_steps_input";
constexpr IioChannel::Range kSteps = {0.0, 2147483647.0, IioChannel::Kind::WholeNumber};
constexpr IioChannel::Range kDecimal = {0.0, 100.0, IioChannel::Kind::Decimal};

} // namespace

/** A channel of one device, whose file is written and read. */
class IioChannelTest : public testing::Test
{
protected:
    IioChannelTest() { mTree.Add(0, {}); }

    IioChannel::Value Read(const std::string &text)
    {
        mTree.Write(0, kFile, text);
        return mChannel.Read(mTree.Path(0));
    }

    /** Reads several contents; the log lines of that. */
    template <typename... Text>
    std::string LogOf(const Text &...text)
    {
        StderrCapture capture;
        (Read(text), ...);
        return mTree.Shortened(capture.Take());
    }

    IioTree mTree;
    IioChannel mChannel{kFile, kSteps};
};

/** A content that is no number. */
class IioChannelBadTextTest : public IioChannelTest, public testing::WithParamInterface<std::string>
{};

TEST_P(IioChannelBadTextTest, IsNoNumberAndLoggedOnce)
{
    const std::string log = LogOf(GetParam(), GetParam(), GetParam());
    EXPECT_EQ(Read(GetParam()).mState, State::NotANumber);
    EXPECT_THAT(log, testing::StartsWith("W platform: iio: iio:device0/in_steps_input: '"));
    EXPECT_THAT(log, testing::EndsWith("' is not a whole number\n"));
    EXPECT_EQ(log.find('\n'), log.size() - 1);
}

INSTANTIATE_TEST_SUITE_P(Texts, IioChannelBadTextTest,
                         testing::Values("", "\n", "   \n", "nan", "nan\n", "inf", "-inf", "1e5",
                                         "1E5\n", "12abc", "abc\n", "0x10", "+5", "1 2", "12\n13\n",
                                         "12.5", "--1", "1,5", std::string("12\0", 3), "\xff\xfe"));

TEST_F(IioChannelTest, ContentIsQuotedInOneShortPrintableLine)
{
    EXPECT_EQ(LogOf(std::string("1\0\x1b[31m\nx", 9)),
              "W platform: iio: iio:device0/in_steps_input: '1\\x00\\x1B[31m\\x0Ax' is not a whole "
              "number\n");
}

/** A number beyond what is allowed. */
class IioChannelRangeTest : public IioChannelTest, public testing::WithParamInterface<std::string>
{};

TEST_P(IioChannelRangeTest, IsOutOfRangeAndLoggedOnce)
{
    const std::string log = LogOf(GetParam() + "\n", GetParam() + "\n");
    EXPECT_EQ(Read(GetParam()).mState, State::OutOfRange);
    EXPECT_EQ(log, "W platform: iio: iio:device0/in_steps_input: '" + GetParam() +
                       "' is out of range\n");
}

INSTANTIATE_TEST_SUITE_P(Numbers, IioChannelRangeTest,
                         testing::Values("-1", "-2147483648", "2147483648", "4294967295",
                                         "4294967296", "9223372036854775808",
                                         "18446744073709551615", "18446744073709551616",
                                         "99999999999999999999999999999999999999"));

TEST_F(IioChannelTest, NumberMayHaveBlanksAndLineEndsAroundIt)
{
    for (const std::string text :
         {"12", "12\n", "  12\n", "12\r\n", "\t12 \n\n", "012", "12.000000"}) {
        const IioChannel::Value value = Read(text);
        EXPECT_EQ(value.mState, State::Good) << text;
        EXPECT_EQ(value.mNumber, 12.0) << text;
    }
}

TEST_F(IioChannelTest, EndsOfTheRangeAreInIt)
{
    EXPECT_EQ(Read("0\n").mState, State::Good);
    EXPECT_EQ(Read("2147483647\n").mNumber, 2147483647.0);
}

TEST_F(IioChannelTest, DecimalsAreReadWhereTheyAreAllowed)
{
    mTree.Write(0, kFile, "12.500000\n");
    IioChannel channel(kFile, kDecimal);
    EXPECT_EQ(channel.Read(mTree.Path(0)).mNumber, 12.5);
    mTree.Write(0, kFile, "100.000001\n");
    EXPECT_EQ(channel.Read(mTree.Path(0)).mState, State::OutOfRange);
}

TEST_F(IioChannelTest, FirstGoodNumberIsNotLogged)
{
    EXPECT_EQ(LogOf("1", "2"), "");
}

TEST_F(IioChannelTest, EachChangeOfStateIsOneLine)
{
    EXPECT_EQ(LogOf("1\n", "x\n", "y\n", "-1\n", "-2\n", "2\n", "3\n", "x\n"),
              "W platform: iio: iio:device0/in_steps_input: 'x' is not a whole number\n"
              "W platform: iio: iio:device0/in_steps_input: '-1' is out of range\n"
              "I platform: iio: iio:device0/in_steps_input is good again\n"
              "W platform: iio: iio:device0/in_steps_input: 'x' is not a whole number\n");
}

TEST_F(IioChannelTest, OverlongContentIsNotReadAsANumber)
{
    EXPECT_EQ(Read(std::string(62, '0') + "12").mNumber, 12.0);
    EXPECT_EQ(LogOf(std::string(63, '0') + "12", std::string(100000, '1')),
              "W platform: iio: cannot read iio:device0/in_steps_input: File too large\n");
    EXPECT_EQ(Read(std::string(63, '0') + "12").mState, State::Unreadable);
}

TEST_F(IioChannelTest, MissingFileIsLeftToTheCaller)
{
    StderrCapture capture;
    EXPECT_EQ(mChannel.Read(mTree.Path(0)).mState, State::Missing);
    EXPECT_EQ(mChannel.Read(mTree.Path(7)).mState, State::Missing);
    EXPECT_EQ(capture.Take(), "");
}

TEST_F(IioChannelTest, OptionalFileThatNeverWasThereIsNotLogged)
{
    StderrCapture capture;
    EXPECT_EQ(mChannel.ReadOptional(mTree.Path(0)).mState, State::Missing);
    EXPECT_EQ(mChannel.ReadOptional(mTree.Path(0)).mState, State::Missing);
    EXPECT_EQ(capture.Take(), "");
}

TEST_F(IioChannelTest, OptionalFileThatGoesAndReturnsIsLoggedOnceEach)
{
    StderrCapture capture;
    mTree.Write(0, kFile, "1\n");
    mChannel.ReadOptional(mTree.Path(0));
    mTree.Remove(0, kFile);
    mChannel.ReadOptional(mTree.Path(0));
    mChannel.ReadOptional(mTree.Path(0));
    mTree.Write(0, kFile, "2\n");
    EXPECT_EQ(mChannel.ReadOptional(mTree.Path(0)).mNumber, 2.0);
    EXPECT_EQ(mTree.Shortened(capture.Take()),
              "W platform: iio: iio:device0/in_steps_input has gone\n"
              "I platform: iio: iio:device0/in_steps_input is good again\n");
}

TEST_F(IioChannelTest, UnreadableFileIsLoggedWithTheReason)
{
    mTree.Write(0, kFile, "1\n");
    StderrCapture capture;
    {
        const ClosedDirectory closed(mTree.Path(0));
        EXPECT_EQ(mChannel.Read(mTree.Path(0)).mState, State::Unreadable);
        EXPECT_EQ(mChannel.Read(mTree.Path(0)).mState, State::Unreadable);
    }
    EXPECT_EQ(mChannel.Read(mTree.Path(0)).mState, State::Good);
    EXPECT_EQ(mTree.Shortened(capture.Take()),
              "W platform: iio: cannot read iio:device0/in_steps_input: Permission denied\n"
              "I platform: iio: iio:device0/in_steps_input is good again\n");
}

TEST_F(IioChannelTest, FifoInItsPlaceDoesNotHang)
{
    ASSERT_EQ(mkfifo(mTree.Path(0, kFile).c_str(), 0600), 0);
    StderrCapture capture;
    EXPECT_EQ(mChannel.Read(mTree.Path(0)).mState, State::Unreadable);
    EXPECT_EQ(mTree.Shortened(capture.Take()), "W platform: iio: cannot read iio:device0/"
                                               "in_steps_input: it is not a regular file\n");
}

TEST_F(IioChannelTest, DirectoryInItsPlaceIsUnreadable)
{
    std::filesystem::create_directory(mTree.Path(0, kFile));
    StderrCapture capture;
    EXPECT_EQ(mChannel.Read(mTree.Path(0)).mState, State::Unreadable);
}

TEST_F(IioChannelTest, EndlessCharacterDeviceInItsPlaceIsNotRead)
{
    std::filesystem::create_symlink("/dev/zero", mTree.Path(0, kFile));
    StderrCapture capture;
    EXPECT_EQ(mChannel.Read(mTree.Path(0)).mState, State::Unreadable);
}

} // namespace ParvanePlatform
