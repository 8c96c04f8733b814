#include "IioSwitches.h"

#include <filesystem>
#include <string>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "TestSupport.h"

namespace ParvanePlatform {

/** One switch, as a file. */
class IioSwitchesTest : public testing::Test
{
protected:
    StderrCapture mCapture;
    TemporaryDirectory mDirectory;
    const std::string mPath = mDirectory / "in_steps_en";
    IioSwitches mSwitches;
};

TEST_F(IioSwitchesTest, LastUserSwitchesOff)
{
    WriteFile(mPath, "0\n");
    EXPECT_TRUE(mSwitches.Use(mPath));
    EXPECT_TRUE(mSwitches.Use(mPath));
    mSwitches.Leave(mPath);
    EXPECT_EQ(ReadFile(mPath), "1\n");
    mSwitches.Leave(mPath);
    EXPECT_EQ(ReadFile(mPath), "0\n");
}

TEST_F(IioSwitchesTest, WhatWasOnBeforeStaysOn)
{
    WriteFile(mPath, "0\n");
    mSwitches.Use(mPath);
    mSwitches.Leave(mPath);
    WriteFile(mPath, "1\n");
    mSwitches.Use(mPath);
    mSwitches.Leave(mPath);
    EXPECT_EQ(ReadFile(mPath), "1\n");
}

TEST_F(IioSwitchesTest, SwitchOfADeviceThatCameInTheOthersPlaceStaysOnIfItWas)
{
    WriteFile(mPath, "0\n");
    mSwitches.Use(mPath);
    mSwitches.Use(mPath);
    WriteFile(mDirectory / "other", "1\n");
    std::filesystem::rename(mDirectory / "other", mPath);
    // One user notices after the other.
    mSwitches.Forget(mPath);
    mSwitches.Use(mPath);
    mSwitches.Forget(mPath);
    mSwitches.Use(mPath);
    mSwitches.Leave(mPath);
    mSwitches.Leave(mPath);
    EXPECT_EQ(ReadFile(mPath), "1\n");
}

TEST_F(IioSwitchesTest, SwitchOfADeviceThatCameInTheOthersPlaceIsSwitchedOffIfItWas)
{
    WriteFile(mPath, "1\n");
    mSwitches.Use(mPath);
    mSwitches.Use(mPath);
    WriteFile(mDirectory / "other", "0\n");
    std::filesystem::rename(mDirectory / "other", mPath);
    mSwitches.Forget(mPath);
    mSwitches.Use(mPath);
    mSwitches.Forget(mPath);
    mSwitches.Use(mPath);
    mSwitches.Leave(mPath);
    EXPECT_EQ(ReadFile(mPath), "1\n");
    mSwitches.Leave(mPath);
    EXPECT_EQ(ReadFile(mPath), "0\n");
}

TEST_F(IioSwitchesTest, WithoutAFileThereIsNoSwitch)
{
    EXPECT_FALSE(mSwitches.Use(mPath));
    EXPECT_FALSE(FileExists(mPath));
    EXPECT_EQ(mCapture.Take(), "");
}

TEST_F(IioSwitchesTest, SwitchThatHasGoneIsNotWritten)
{
    WriteFile(mPath, "0\n");
    mSwitches.Use(mPath);
    mSwitches.Forget(mPath);
    EXPECT_EQ(ReadFile(mPath), "1\n");
    mSwitches.Use(mPath);
    mSwitches.Leave(mPath);
    EXPECT_EQ(ReadFile(mPath), "1\n");
}

TEST_F(IioSwitchesTest, DeviceThatCannotBeSwitchedOnIsToldOncePerReason)
{
    ASSERT_EQ(mkfifo(mPath.c_str(), 0600), 0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(mSwitches.Use(mPath));
        mSwitches.Leave(mPath);
    }
    std::filesystem::remove(mPath);
    std::filesystem::create_directory(mPath);
    mSwitches.Use(mPath);
    EXPECT_EQ(mCapture.Take(), "W platform: iio: cannot switch on " + mPath +
                                   ": it is not a regular file\n"
                                   "W platform: iio: cannot switch on " +
                                   mPath + ": Is a directory\n");
}

TEST_F(IioSwitchesTest, SwitchThatIsOnAlreadyNeedNotBeWritable)
{
    WriteFile(mDirectory / "elsewhere", "1\n");
    std::filesystem::create_symlink("elsewhere", mPath);
    EXPECT_TRUE(mSwitches.Use(mPath));
    EXPECT_EQ(mCapture.Take(), "");
}

TEST_F(IioSwitchesTest, LinkIsNotWrittenThrough)
{
    WriteFile(mDirectory / "elsewhere", "0\n");
    std::filesystem::create_symlink("elsewhere", mPath);
    mSwitches.Use(mPath);
    EXPECT_EQ(ReadFile(mDirectory / "elsewhere"), "0\n");
    EXPECT_EQ(mCapture.Take(),
              "W platform: iio: cannot switch on " + mPath + ": it is not a regular file\n");
}

} // namespace ParvanePlatform
