#include "IioPedometer.h"

#include <map>
#include <memory>
#include <string>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "IioTree.h"

namespace ParvanePlatform {

namespace {

constexpr char kSteps[] = "in_steps_input";
constexpr char kDistance[] = "in_distance_input";
constexpr char kEnergy[] = "in_energy_input";
constexpr char kSpeed[] = "in_velocity_sqrt(x^2+y^2+z^2)_input";

} // namespace

/** A pedometer on a tree of files; readings as text. */
class IioPedometerTest : public testing::Test
{
protected:
    IioPedometerTest() { Make(); }

    void Make(const std::string &device = {})
    {
        mPedometer = std::make_unique<IioPedometer>(mTree.Settings(device), mSwitches);
    }

    std::string Read() const
    {
        const auto reading = mPedometer->Read();
        return reading ? TextOf(*reading) : "none";
    }

    std::string ReadWith(const std::string &file, const std::string &text) const
    {
        mTree.Write(0, file, text);
        return Read();
    }

    /** The log since the last call, or since the start. */
    std::string TakeLog()
    {
        std::string log = mTree.Shortened(mCapture->Take());
        mCapture = std::make_unique<StderrCapture>();
        return log;
    }

    std::unique_ptr<StderrCapture> mCapture = std::make_unique<StderrCapture>();
    IioTree mTree;
    IioSwitches mSwitches;
    std::unique_ptr<IioPedometer> mPedometer;
};

TEST_F(IioPedometerTest, StepsAloneMakeAReading)
{
    mTree.Add(0, {{kSteps, "42\n"}});
    EXPECT_EQ(Read(), "pedometer/total_steps=42");
}

TEST_F(IioPedometerTest, UnitsAreThoseOfTheReadings)
{
    mTree.Add(0, {{kSteps, "42\n"},
                  {kDistance, "31.500000\n"},
                  {kEnergy, "10460\n"},
                  {kSpeed, "2.500000\n"}});
    EXPECT_EQ(Read(), "pedometer/total_steps=42 pedometer/distance=31.5 pedometer/calories=2.5 "
                      "pedometer/speed=9");
}

TEST_F(IioPedometerTest, WithoutStepsThereIsNoReading)
{
    mTree.Add(0, {{kDistance, "31.5\n"}, {kEnergy, "10460\n"}});
    EXPECT_EQ(Read(), "none");
    EXPECT_EQ(TakeLog(), "W platform: iio: no device has in_steps_input\n");
}

TEST_F(IioPedometerTest, DistanceOfAnotherDeviceIsNotThatOfTheWearer)
{
    mTree.Add(0, {{kDistance, "0.35\n"}});
    mTree.Add(1, {{kSteps, "42\n"}});
    EXPECT_EQ(Read(), "pedometer/total_steps=42");
}

TEST_F(IioPedometerTest, BadStepsMakeNoReadingUntilTheyAreGoodAgain)
{
    mTree.Add(0, {{kSteps, "5\n"}});
    Read();
    TakeLog();
    for (const char *text : {"-1\n", "-1\n", "-7\n"}) {
        EXPECT_EQ(ReadWith(kSteps, text), "none");
    }
    EXPECT_EQ(TakeLog(), "W platform: iio: iio:device0/in_steps_input: '-1' is out of range\n");
    EXPECT_EQ(ReadWith(kSteps, "9\n"), "pedometer/total_steps=9");
    EXPECT_EQ(ReadWith(kSteps, "10\n"), "pedometer/total_steps=10");
    EXPECT_EQ(TakeLog(), "I platform: iio: iio:device0/in_steps_input is good again\n");
}

TEST_F(IioPedometerTest, CounterThatGoesBackIsCountedOnWithOneLine)
{
    mTree.Add(0, {{kSteps, "65530\n"}});
    Read();
    TakeLog();
    EXPECT_EQ(ReadWith(kSteps, "4\n"), "pedometer/total_steps=65530");
    EXPECT_EQ(Read(), "pedometer/total_steps=65530");
    EXPECT_EQ(ReadWith(kSteps, "14\n"), "pedometer/total_steps=65540");
    EXPECT_EQ(TakeLog(), "W platform: iio: iio:device0/in_steps_input has gone back from 65530 to "
                         "4: that counts nothing\n");
}

TEST_F(IioPedometerTest, CounterThatKeepsFallingIsOneLine)
{
    mTree.Add(0, {{kSteps, "500\n"}});
    Read();
    TakeLog();
    for (const char *text : {"400\n", "300\n", "200\n"}) {
        EXPECT_EQ(ReadWith(kSteps, text), "pedometer/total_steps=500");
    }
    EXPECT_EQ(TakeLog(), "W platform: iio: iio:device0/in_steps_input has gone back from 500 to "
                         "400: that counts nothing\n");
}

TEST_F(IioPedometerTest, CounterThatIsLowForAMomentInventsNoSteps)
{
    mTree.Add(0, {{kSteps, "10000\n"}});
    Read();
    EXPECT_EQ(ReadWith(kSteps, "0\n"), "pedometer/total_steps=10000");
    EXPECT_EQ(ReadWith(kSteps, "10000\n"), "pedometer/total_steps=10000");
}

TEST_F(IioPedometerTest, DistanceAndEnergyThatGoBackAreCountedOn)
{
    mTree.Add(0, {{kSteps, "1\n"}, {kDistance, "100.5\n"}, {kEnergy, "8368\n"}});
    Read();
    mTree.Write(0, kDistance, "0.5\n");
    EXPECT_EQ(ReadWith(kEnergy, "0\n"),
              "pedometer/total_steps=1 pedometer/distance=100.5 pedometer/calories=2");
    mTree.Write(0, kDistance, "2.5\n");
    EXPECT_EQ(ReadWith(kEnergy, "4184\n"),
              "pedometer/total_steps=1 pedometer/distance=102.5 pedometer/calories=3");
}

TEST_F(IioPedometerTest, CountOf32BitsThatWrapsNeverDrops)
{
    mTree.Add(0, {{kSteps, "2147483000\n"}});
    EXPECT_EQ(Read(), "pedometer/total_steps=2147483000");
    EXPECT_EQ(ReadWith(kSteps, "4294967290\n"), "none");
    EXPECT_EQ(ReadWith(kSteps, "5\n"), "pedometer/total_steps=2147483000");
    EXPECT_EQ(ReadWith(kSteps, "9\n"), "pedometer/total_steps=2147483004");
}

TEST_F(IioPedometerTest, OptionalChannelsThatFailDoNotStopTheSteps)
{
    mTree.Add(0, {{kSteps, "1\n"}, {kDistance, "10\n"}, {kEnergy, "4184\n"}, {kSpeed, "1\n"}});
    Read();
    TakeLog();
    mTree.Write(0, kSteps, "2\n");
    mTree.Write(0, kDistance, "nan\n");
    mTree.Remove(0, kEnergy);
    EXPECT_EQ(ReadWith(kSpeed, "-3\n"),
              "pedometer/total_steps=2 pedometer/distance=10 pedometer/calories=1");
    Read();
    EXPECT_EQ(TakeLog(),
              "W platform: iio: iio:device0/in_distance_input: 'nan' is not a number\n"
              "W platform: iio: iio:device0/in_energy_input has gone\n"
              "W platform: iio: iio:device0/in_velocity_sqrt(x^2+y^2+z^2)_input: '-3' is out of "
              "range\n");
    mTree.Write(0, kDistance, "12\n");
    mTree.Write(0, kEnergy, "8368\n");
    EXPECT_EQ(ReadWith(kSpeed, "2\n"), "pedometer/total_steps=2 pedometer/distance=12 "
                                       "pedometer/calories=2 pedometer/speed=7.2");
}

TEST_F(IioPedometerTest, DistanceThatComesLaterThanTheStepsBeginsAtZero)
{
    mTree.Add(0, {{kSteps, "1\n"}, {kDistance, "abc\n"}});
    EXPECT_EQ(Read(), "pedometer/total_steps=1");
    EXPECT_EQ(ReadWith(kDistance, "5000\n"), "pedometer/total_steps=1 pedometer/distance=0");
    EXPECT_EQ(ReadWith(kDistance, "5004.5\n"), "pedometer/total_steps=1 pedometer/distance=4.5");
}

TEST_F(IioPedometerTest, SpeedOfTheAxesIsTheirMagnitude)
{
    mTree.Add(0, {{kSteps, "1\n"},
                  {"in_velocity_x_input", "-2.0\n"},
                  {"in_velocity_y_input", "3.0\n"},
                  {"in_velocity_z_input", "-6.0\n"}});
    EXPECT_EQ(Read(), "pedometer/total_steps=1 pedometer/speed=25.2");
    mTree.Remove(0, "in_velocity_z_input");
    mTree.Remove(0, "in_velocity_y_input");
    EXPECT_EQ(Read(), "pedometer/total_steps=1 pedometer/speed=7.2");
    EXPECT_EQ(ReadWith("in_velocity_y_input", "fast\n"), "pedometer/total_steps=1");
}

TEST_F(IioPedometerTest, MagnitudeInThePlaneGoesBeforeTheAxes)
{
    mTree.Add(0, {{kSteps, "1\n"},
                  {"in_velocity_sqrt(x^2+y^2)_input", "5.0\n"},
                  {"in_velocity_x_input", "3.0\n"}});
    EXPECT_EQ(Read(), "pedometer/total_steps=1 pedometer/speed=18");
    EXPECT_EQ(ReadWith(kSpeed, "10\n"), "pedometer/total_steps=1 pedometer/speed=36");
}

TEST_F(IioPedometerTest, SumOfSquaresIsNoSpeed)
{
    mTree.Add(0, {{kSteps, "1\n"}, {"in_velocity_x^2+y^2+z^2_input", "9\n"}});
    EXPECT_EQ(Read(), "pedometer/total_steps=1");
}

TEST_F(IioPedometerTest, DeviceThatGoesAndReturnsAnywhereIsCountedOn)
{
    mTree.Add(0, {{"name", "watch\n"}, {kSteps, "100\n"}});
    Read();
    mTree.Remove(0);
    EXPECT_EQ(Read(), "none");
    EXPECT_EQ(Read(), "none");
    mTree.Add(3, {{"name", "watch\n"}, {kSteps, "130\n"}});
    EXPECT_EQ(Read(), "pedometer/total_steps=130");
    mTree.Remove(3);
    EXPECT_EQ(Read(), "none");
    mTree.Add(1, {{"name", "watch\n"}, {kSteps, "2\n"}});
    EXPECT_EQ(Read(), "pedometer/total_steps=130");
    mTree.Write(1, kSteps, "7\n");
    EXPECT_EQ(Read(), "pedometer/total_steps=135");
    EXPECT_EQ(TakeLog(), "I platform: iio: in_steps_input is read from iio:device0 (watch)\n"
                         "W platform: iio: no device has in_steps_input\n"
                         "I platform: iio: in_steps_input is read from iio:device3 (watch)\n"
                         "W platform: iio: no device has in_steps_input\n"
                         "I platform: iio: in_steps_input is read from iio:device1 (watch)\n"
                         "W platform: iio: iio:device1/in_steps_input has gone back from 130 to 2: "
                         "that counts nothing\n");
}

TEST_F(IioPedometerTest, StepsOfADeviceOfAnotherNameAreNotCredited)
{
    mTree.Add(0, {{"name", "watch\n"}, {kSteps, "100\n"}});
    mTree.Add(1, {{"name", "band\n"}, {kSteps, "70000\n"}});
    EXPECT_EQ(Read(), "pedometer/total_steps=100");
    mTree.Remove(0);
    EXPECT_EQ(Read(), "pedometer/total_steps=100");
    mTree.Write(1, kSteps, "70010\n");
    EXPECT_EQ(Read(), "pedometer/total_steps=110");
}

TEST_F(IioPedometerTest, ChannelThatGoesWithoutItsDeviceIsPickedUpAgain)
{
    mTree.Add(0, {{kSteps, "100\n"}});
    Read();
    TakeLog();
    mTree.Remove(0, kSteps);
    EXPECT_EQ(Read(), "none");
    EXPECT_EQ(Read(), "none");
    EXPECT_EQ(ReadWith(kSteps, "105\n"), "pedometer/total_steps=105");
    EXPECT_EQ(TakeLog(), "W platform: iio: iio:device0/in_steps_input has gone\n"
                         "W platform: iio: no device has in_steps_input\n"
                         "I platform: iio: in_steps_input is read from iio:device0 (no name)\n");
}

TEST_F(IioPedometerTest, FifoInPlaceOfTheStepsDoesNotHang)
{
    mTree.Add(0, {{kDistance, "1\n"}});
    ASSERT_EQ(mkfifo(mTree.Path(0, kSteps).c_str(), 0600), 0);
    EXPECT_EQ(Read(), "none");
}

TEST_F(IioPedometerTest, PollingEnablesWhatIsRead)
{
    mTree.Add(0, {{kSteps, "1\n"},
                  {"in_steps_en", "0\n"},
                  {"in_distance_en", "0\n"},
                  {"in_energy_en", "0\n"},
                  {"in_velocity_sqrt(x^2+y^2+z^2)_en", "0\n"}});
    mPedometer->SetPolled(true);
    Read();
    for (const char *file :
         {"in_steps_en", "in_distance_en", "in_energy_en", "in_velocity_sqrt(x^2+y^2+z^2)_en"}) {
        EXPECT_EQ(mTree.Read(0, file), "1\n") << file;
    }
    mPedometer->SetPolled(false);
    EXPECT_EQ(mTree.Read(0, "in_steps_en"), "0\n");
}

TEST_F(IioPedometerTest, WhatASwitchedOffDeviceSaysIsNotCounted)
{
    mTree.Add(0, {{kSteps, "0\n"}, {kDistance, "0\n"}, {"in_steps_en", "0\n"}});
    EXPECT_EQ(Read(), "none");
    mPedometer->SetPolled(true);
    EXPECT_EQ(ReadWith(kSteps, "100\n"), "pedometer/total_steps=100 pedometer/distance=0");
    mPedometer->SetPolled(false);
    TakeLog();
    EXPECT_EQ(ReadWith(kSteps, "3\n"), "pedometer/total_steps=100 pedometer/distance=0");
    EXPECT_EQ(ReadWith(kSteps, "90\n"), "pedometer/total_steps=100 pedometer/distance=0");
    EXPECT_EQ(TakeLog(), "");
    mPedometer->SetPolled(true);
    EXPECT_EQ(ReadWith(kSteps, "110\n"), "pedometer/total_steps=110 pedometer/distance=0");
}

TEST_F(IioPedometerTest, DistanceThatWasSwitchedOffWhenTheStepsWereToldBeginsAtZero)
{
    mTree.Add(0, {{kSteps, "5\n"}, {kDistance, "0\n"}, {"in_distance_en", "0\n"}});
    EXPECT_EQ(Read(), "pedometer/total_steps=5");
    mPedometer->SetPolled(true);
    EXPECT_EQ(ReadWith(kDistance, "5000\n"), "pedometer/total_steps=5 pedometer/distance=0");
}

TEST_F(IioPedometerTest, StepsOfASecondDeviceOfTheSameNameAreNotCredited)
{
    mTree.Attach(0, "bus/1-0068", {{"name", "chip\n"}, {kSteps, "100\n"}});
    mTree.Attach(1, "bus/1-0069", {{"name", "chip\n"}, {kSteps, "70000\n"}});
    EXPECT_EQ(Read(), "pedometer/total_steps=100");
    mTree.Remove(0);
    EXPECT_EQ(Read(), "pedometer/total_steps=100");
    mTree.Write(1, kSteps, "70010\n");
    EXPECT_EQ(Read(), "pedometer/total_steps=110");
}

} // namespace ParvanePlatform
