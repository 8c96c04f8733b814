#include "IioActivity.h"

#include <map>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "IioTree.h"

namespace ParvanePlatform {

namespace {

constexpr char kStill[] = "in_activity_still_input";
constexpr char kWalking[] = "in_activity_walking_input";
constexpr char kJogging[] = "in_activity_jogging_input";
constexpr char kRunning[] = "in_activity_running_input";

constexpr int kNone = -1;

} // namespace

/** An activity on a tree of files; kNone for no reading. */
class IioActivityTest : public testing::Test
{
protected:
    int Read() const
    {
        const auto reading = mActivity->Read();
        if (!reading) {
            return kNone;
        }
        EXPECT_EQ(reading->size(), 1U);
        EXPECT_STREQ(reading->begin()->mKey, "activity/status");
        return std::get<int>(reading->begin()->mValue);
    }

    /** The four confidences, as a device that has them all. */
    int ReadOf(int still, int walking, int jogging, int running) const
    {
        mTree.Add(0, {{kStill, std::to_string(still) + "\n"},
                      {kWalking, std::to_string(walking) + "\n"},
                      {kJogging, std::to_string(jogging) + "\n"},
                      {kRunning, std::to_string(running) + "\n"}});
        return Read();
    }

    int ReadWith(const std::string &file, const std::string &text) const
    {
        mTree.Write(0, file, text);
        return Read();
    }

    StderrCapture mCapture;
    IioTree mTree;
    IioSwitches mSwitches;
    std::unique_ptr<IioActivity> mActivity =
        std::make_unique<IioActivity>(mTree.Settings(), mSwitches);
};

TEST_F(IioActivityTest, MostLikelyOneIsTaken)
{
    EXPECT_EQ(ReadOf(90, 10, 0, 0), 1);
    EXPECT_EQ(ReadOf(51, 60, 50, 0), 2);
    EXPECT_EQ(ReadOf(0, 60, 50, 61), 3);
}

TEST_F(IioActivityTest, JoggingCountsAsRunning)
{
    EXPECT_EQ(ReadOf(0, 20, 80, 10), 3);
}

TEST_F(IioActivityTest, LessThanHalfIsOther)
{
    EXPECT_EQ(ReadOf(49, 49, 49, 49), 0);
    EXPECT_EQ(ReadOf(0, 0, 0, 0), 0);
    EXPECT_EQ(ReadOf(0, 50, 0, 0), 2);
}

TEST_F(IioActivityTest, OfTwoThatAreEqualTheQuieterOneIsTaken)
{
    EXPECT_EQ(ReadOf(50, 50, 0, 0), 1);
    EXPECT_EQ(ReadOf(0, 50, 0, 50), 2);
}

TEST_F(IioActivityTest, DeviceNeedNotKnowThemAll)
{
    mTree.Add(0, {{kRunning, "100\n"}});
    EXPECT_EQ(Read(), 3);
    EXPECT_EQ(ReadWith(kRunning, "20.5\n"), 0);
}

TEST_F(IioActivityTest, OneThatCannotBeUsedLeavesAllOpen)
{
    EXPECT_EQ(ReadOf(0, 80, 0, 0), 2);
    for (const char *text : {"101\n", "-1\n", "nan\n", "", "1e1\n"}) {
        EXPECT_EQ(ReadWith(kStill, text), kNone) << text;
    }
    EXPECT_EQ(ReadWith(kStill, "90\n"), 1);
}

TEST_F(IioActivityTest, DeviceThatIsTakenAwayPieceByPieceTellsNothing)
{
    EXPECT_EQ(ReadOf(90, 0, 0, 0), 1);
    mTree.Remove(0, kStill);
    EXPECT_EQ(Read(), kNone);
    mTree.Remove(0);
    EXPECT_EQ(Read(), kNone);
    mTree.Add(5, {{kStill, "70\n"}});
    EXPECT_EQ(Read(), 1);
    EXPECT_EQ(mTree.Shortened(mCapture.Take()),
              "I platform: iio: in_activity_*_input is read from iio:device0 (no name)\n"
              "W platform: iio: iio:device0/in_activity_still_input has gone\n"
              "W platform: iio: no device has in_activity_*_input\n"
              "I platform: iio: in_activity_*_input is read from iio:device5 (no name)\n");
}

TEST_F(IioActivityTest, DeviceThatKnowsMoreFromNowOnIsRead)
{
    mTree.Add(0, {{kStill, "60\n"}});
    EXPECT_EQ(Read(), 1);
    EXPECT_EQ(ReadWith(kWalking, "70\n"), 2);
}

TEST_F(IioActivityTest, WithoutADeviceThereIsNone)
{
    EXPECT_EQ(Read(), kNone);
    EXPECT_EQ(Read(), kNone);
    EXPECT_EQ(mCapture.Take(), "W platform: iio: no device has in_activity_*_input\n");
}

TEST_F(IioActivityTest, PollingEnablesWhatIsRead)
{
    mTree.Add(
        0, {{kStill, "60\n"}, {"in_activity_still_en", "0\n"}, {"in_activity_running_en", "0\n"}});
    mActivity->SetPolled(true);
    Read();
    EXPECT_EQ(mTree.Read(0, "in_activity_still_en"), "1\n");
    EXPECT_EQ(mTree.Read(0, "in_activity_running_en"), "1\n");
    mActivity->SetPolled(false);
    EXPECT_EQ(mTree.Read(0, "in_activity_still_en"), "0\n");
}

TEST_F(IioActivityTest, PollingEnablesTheStepCounterOfTheDevice)
{
    mTree.Add(0, {{kStill, "60\n"}, {"in_steps_en", "0\n"}});
    mActivity->SetPolled(true);
    Read();
    EXPECT_EQ(mTree.Read(0, "in_steps_en"), "1\n");
    mActivity->SetPolled(false);
    EXPECT_EQ(mTree.Read(0, "in_steps_en"), "0\n");
}

} // namespace ParvanePlatform
