#include "IioDevice.h"

#include <filesystem>
#include <memory>
#include <string>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "IioTree.h"

namespace ParvanePlatform {

namespace {

using Presence = IioDevice::Presence;

} // namespace

/** A device that has "in_a_input" or "in_b_input", and perhaps "in_c_input". */
class IioDeviceTest : public testing::Test
{
protected:
    /** Looks with new eyes; `wanted` is the configured name. */
    void Make(const std::string &wanted = {})
    {
        mDevice = std::make_unique<IioDevice>(
            mTree.Settings(wanted),
            IioDevice::Inputs{"an input", {"in_a_input", "in_b_input"}, {"in_c_input"}}, mSwitches);
    }

    Presence Look() const { return mDevice->Look(); }

    StderrCapture mCapture;
    IioTree mTree;
    IioSwitches mSwitches;
    std::unique_ptr<IioDevice> mDevice;
};

TEST_F(IioDeviceTest, LowestNumberThatHasTheChannelIsTaken)
{
    mTree.Add(10, {{"in_a_input", "1"}});
    mTree.Add(9, {{"in_b_input", "1"}});
    mTree.Add(2, {{"in_c_input", "1"}});
    Make();
    EXPECT_EQ(Look(), Presence::Found);
    EXPECT_EQ(mDevice->Path(), mTree.Path(9));
    EXPECT_EQ(Look(), Presence::Same);
}

TEST_F(IioDeviceTest, ConfiguredNameChoosesTheDevice)
{
    mTree.Add(0, {{"name", "other\n"}, {"in_a_input", "1"}});
    mTree.Add(1, {{"name", "watch\n"}, {"in_c_input", "1"}});
    mTree.Add(2, {{"name", "watch\n"}, {"in_a_input", "1"}});
    Make("watch");
    EXPECT_EQ(Look(), Presence::Found);
    EXPECT_EQ(mDevice->Path(), mTree.Path(2));
}

TEST_F(IioDeviceTest, OtherEntriesAreNoDevices)
{
    mTree.Add(0, {{"in_a_input", "1"}});
    for (const char *name : {"trigger0", "iio:device", "iio:device0x", "iio:device-1", "device0"}) {
        std::filesystem::copy(mTree.Path(0), mTree.Path(0) + "/../" + name);
    }
    mTree.Remove(0);
    Make();
    EXPECT_EQ(Look(), Presence::Absent);
}

TEST_F(IioDeviceTest, DeviceMayBeALink)
{
    mTree.Add(0, {{"in_a_input", "1"}});
    std::filesystem::rename(mTree.Path(0), mTree.Path(0) + "/../../real");
    std::filesystem::create_directory_symlink("../real", mTree.Path(0));
    Make();
    EXPECT_EQ(Look(), Presence::Found);
}

TEST_F(IioDeviceTest, WithoutDevicesThereIsOneLine)
{
    Make();
    EXPECT_EQ(Look(), Presence::Absent);
    EXPECT_EQ(Look(), Presence::Absent);
    EXPECT_EQ(mCapture.Take(), "W platform: iio: no device has an input\n");
}

TEST_F(IioDeviceTest, MissingTreeIsJustNoDevice)
{
    IioDevice device({"/nowhere/at/all", "watch", 1000}, {"an input", {"in_a_input"}, {}},
                     mSwitches);
    EXPECT_EQ(device.Look(), Presence::Absent);
    EXPECT_EQ(mCapture.Take(), "W platform: iio: no device named 'watch' has an input\n");
}

TEST_F(IioDeviceTest, NameThatIsMissedIsLoggedInOnePrintableLine)
{
    Make("wa\ttch\x1b[31m");
    EXPECT_EQ(Look(), Presence::Absent);
    EXPECT_EQ(mCapture.Take(),
              "W platform: iio: no device named 'wa\\x09tch\\x1B[31m' has an input\n");
}

TEST_F(IioDeviceTest, NameThatIsFoundIsLoggedInOnePrintableLine)
{
    mTree.Add(0, {{"name", "wa\ttch\x1b[31m\n"}, {"in_a_input", "1"}});
    Make();
    EXPECT_EQ(Look(), Presence::Found);
    EXPECT_THAT(mCapture.Take(), testing::EndsWith(" (wa\\x09tch\\x1B[31m)\n"));
}

TEST_F(IioDeviceTest, DeviceThatGoesAndReturnsIsFoundUnderAnotherNumber)
{
    mTree.Add(0, {{"name", "watch\n"}, {"in_a_input", "1"}});
    Make();
    EXPECT_EQ(Look(), Presence::Found);
    mTree.Remove(0);
    EXPECT_EQ(Look(), Presence::Absent);
    EXPECT_EQ(Look(), Presence::Absent);
    mTree.Add(4, {{"name", "watch\n"}, {"in_a_input", "1"}});
    EXPECT_EQ(Look(), Presence::Found);
    EXPECT_EQ(mDevice->Path(), mTree.Path(4));
    EXPECT_EQ(mTree.Shortened(mCapture.Take()),
              "I platform: iio: an input is read from iio:device0 (watch)\n"
              "W platform: iio: no device has an input\n"
              "I platform: iio: an input is read from iio:device4 (watch)\n");
}

TEST_F(IioDeviceTest, DeviceThatIsRenumberedBetweenTwoLooksIsFoundAtOnce)
{
    mTree.Add(0, {{"in_a_input", "1"}});
    Make();
    Look();
    mTree.Renumber(0, 1);
    EXPECT_EQ(Look(), Presence::Found);
    EXPECT_EQ(mDevice->Path(), mTree.Path(1));
}

TEST_F(IioDeviceTest, AnotherDeviceUnderTheSameNumberIsNoticed)
{
    mTree.Add(0, {{"name", "watch\n"}, {"in_a_input", "1"}});
    mTree.Add(1, {{"name", "other\n"}, {"in_a_input", "1"}});
    Make();
    Look();
    mTree.Remove(0);
    mTree.Renumber(1, 0);
    EXPECT_EQ(Look(), Presence::Replaced);
    EXPECT_EQ(Look(), Presence::Same);
}

TEST_F(IioDeviceTest, DeviceIsKeptWhenOneOfALowerNumberComes)
{
    mTree.Add(1, {{"in_a_input", "1"}});
    Make();
    Look();
    mTree.Add(0, {{"in_a_input", "1"}});
    EXPECT_EQ(Look(), Presence::Same);
    EXPECT_EQ(mDevice->Path(), mTree.Path(1));
}

TEST_F(IioDeviceTest, LostDeviceIsLookedForAnew)
{
    mTree.Add(0, {{"in_a_input", "1"}});
    Make();
    Look();
    mDevice->Lose("in_b_input");
    EXPECT_EQ(Look(), Presence::Found);
    EXPECT_EQ(mTree.Shortened(mCapture.Take()),
              "I platform: iio: an input is read from iio:device0 (no name)\n"
              "W platform: iio: iio:device0/in_b_input has gone\n"
              "I platform: iio: an input is read from iio:device0 (no name)\n");
}

TEST_F(IioDeviceTest, SecondDeviceOfTheSameNameIsAnotherOne)
{
    mTree.Attach(0, "bus/1-0068", {{"name", "chip\n"}, {"in_a_input", "1"}});
    mTree.Attach(1, "bus/1-0069", {{"name", "chip\n"}, {"in_a_input", "1"}});
    Make();
    EXPECT_EQ(Look(), Presence::Found);
    std::filesystem::remove(mTree.Path(0));
    EXPECT_EQ(Look(), Presence::Replaced);
    EXPECT_EQ(mDevice->Path(), mTree.Path(1));
}

TEST_F(IioDeviceTest, DeviceThatReturnsToItsPlaceIsTheSameOne)
{
    mTree.Attach(0, "bus/1-0068", {{"name", "chip\n"}, {"in_a_input", "1"}});
    Make();
    Look();
    std::filesystem::remove(mTree.Path(0));
    EXPECT_EQ(Look(), Presence::Absent);
    mTree.Attach(3, "bus/1-0068", {{"name", "chip\n"}, {"in_a_input", "1"}});
    EXPECT_EQ(Look(), Presence::Found);
}

TEST_F(IioDeviceTest, WhatKeepsItFromSeeingADeviceIsToldOnce)
{
    mTree.Add(0, {{"in_a_input", "1"}});
    // A test run by root is somebody else inside, who must get as far as the device.
    std::filesystem::permissions(mTree.Settings().mRoot, std::filesystem::perms(0755));
    Make();
    {
        const ClosedDirectory closed(mTree.Path(0));
        EXPECT_EQ(Look(), Presence::Absent);
        EXPECT_EQ(Look(), Presence::Absent);
    }
    mTree.Remove(0);
    EXPECT_EQ(Look(), Presence::Absent);
    EXPECT_EQ(
        mTree.Shortened(mCapture.Take()),
        "W platform: iio: no device has an input (iio:device0/in_a_input: Permission denied)\n"
        "W platform: iio: no device has an input\n");
}

TEST_F(IioDeviceTest, NameThatCannotBeReadIsTold)
{
    mTree.Add(0, {{"in_a_input", "1"}});
    std::filesystem::create_directory(mTree.Path(0, "name"));
    Make("watch");
    EXPECT_EQ(Look(), Presence::Absent);
    EXPECT_EQ(mTree.Shortened(mCapture.Take()),
              "W platform: iio: no device named 'watch' has an input (iio:device0/name: Is a "
              "directory)\n");
}

TEST_F(IioDeviceTest, ClosedDirectoryOfTheDevicesIsTold)
{
    mTree.Add(0, {{"in_a_input", "1"}});
    const std::string devices = mTree.Path(0).substr(0, mTree.Path(0).rfind('/'));
    Make();
    {
        const ClosedDirectory closed(devices);
        EXPECT_EQ(Look(), Presence::Absent);
    }
    EXPECT_EQ(mCapture.Take(),
              "W platform: iio: no device has an input (" + devices + ": Permission denied)\n");
}

TEST_F(IioDeviceTest, EnablingWritesOneAndZeroWhereTheFilesAre)
{
    mTree.Add(0, {{"in_a_input", "1"}, {"in_a_en", "0\n"}, {"in_c_en", "0\n"}, {"in_d_en", "0\n"}});
    Make();
    mDevice->SetEnabled(true);
    EXPECT_EQ(mTree.Read(0, "in_a_en"), "0\n");
    Look();
    EXPECT_EQ(mTree.Read(0, "in_a_en"), "1\n");
    EXPECT_EQ(mTree.Read(0, "in_c_en"), "1\n");
    EXPECT_EQ(mTree.Read(0, "in_d_en"), "0\n");
    EXPECT_FALSE(FileExists(mTree.Path(0, "in_b_en")));
    mDevice->SetEnabled(false);
    EXPECT_EQ(mTree.Read(0, "in_a_en"), "0\n");
    EXPECT_EQ(mTree.Read(0, "in_c_en"), "0\n");
}

TEST_F(IioDeviceTest, LookingAloneEnablesNothing)
{
    mTree.Add(0, {{"in_a_input", "1"}, {"in_a_en", "0\n"}});
    Make();
    Look();
    mDevice->SetEnabled(false);
    EXPECT_EQ(mTree.Read(0, "in_a_en"), "0\n");
}

TEST_F(IioDeviceTest, WhatSomebodyElseHasEnabledStaysWhenNothingWasPolled)
{
    mTree.Add(0, {{"in_a_input", "1"}, {"in_a_en", "1\n"}});
    Make();
    Look();
    mDevice.reset();
    EXPECT_EQ(mTree.Read(0, "in_a_en"), "1\n");
}

TEST_F(IioDeviceTest, DeviceThatReturnsIsEnabledAgain)
{
    mTree.Add(0, {{"in_a_input", "1"}, {"in_a_en", "0\n"}});
    Make();
    Look();
    mDevice->SetEnabled(true);
    EXPECT_EQ(mTree.Read(0, "in_a_en"), "1\n");
    mTree.Remove(0);
    Look();
    mTree.Add(3, {{"in_a_input", "1"}, {"in_a_en", "0\n"}});
    Look();
    EXPECT_EQ(mTree.Read(3, "in_a_en"), "1\n");
}

TEST_F(IioDeviceTest, WhatWasOnBeforeStaysOn)
{
    mTree.Add(0, {{"in_a_input", "1"}, {"in_a_en", "1\n"}, {"in_c_en", "0\n"}});
    Make();
    Look();
    mDevice->SetEnabled(true);
    mDevice->SetEnabled(false);
    EXPECT_EQ(mTree.Read(0, "in_a_en"), "1\n");
    EXPECT_EQ(mTree.Read(0, "in_c_en"), "0\n");
}

TEST_F(IioDeviceTest, DeviceThatIsLostButThereIsSwitchedOff)
{
    mTree.Add(0, {{"in_a_input", "1"}, {"in_a_en", "0\n"}});
    Make();
    Look();
    mDevice->SetEnabled(true);
    mDevice->Lose("in_c_input");
    EXPECT_EQ(mTree.Read(0, "in_a_en"), "0\n");
    Look();
    EXPECT_EQ(mTree.Read(0, "in_a_en"), "1\n");
    mDevice->SetEnabled(false);
    EXPECT_EQ(mTree.Read(0, "in_a_en"), "0\n");
}

TEST_F(IioDeviceTest, AnotherDeviceInItsPlaceIsNotSwitchedOff)
{
    mTree.Add(0, {{"name", "watch\n"}, {"in_a_input", "1"}, {"in_a_en", "0\n"}});
    mTree.Add(1, {{"name", "other\n"}, {"in_a_input", "1"}, {"in_a_en", "1\n"}});
    Make();
    Look();
    mDevice->SetEnabled(true);
    mTree.Remove(0);
    mTree.Renumber(1, 0);
    mDevice->SetEnabled(false);
    EXPECT_EQ(mTree.Read(0, "in_a_en"), "1\n");
}

TEST_F(IioDeviceTest, EndOfTheObjectDisables)
{
    mTree.Add(0, {{"in_a_input", "1"}, {"in_a_en", "0\n"}});
    Make();
    Look();
    mDevice->SetEnabled(true);
    mDevice.reset();
    EXPECT_EQ(mTree.Read(0, "in_a_en"), "0\n");
}

TEST_F(IioDeviceTest, EnableFileThatCannotBeWrittenIsNoFailure)
{
    mTree.Add(0, {{"in_a_input", "1"}});
    std::filesystem::create_directory(mTree.Path(0, "in_a_en"));
    ASSERT_EQ(mkfifo(mTree.Path(0, "in_b_en").c_str(), 0600), 0);
    Make();
    mDevice->SetEnabled(true);
    EXPECT_EQ(Look(), Presence::Found);
    mDevice->SetEnabled(false);
    EXPECT_EQ(Look(), Presence::Same);
}

} // namespace ParvanePlatform
