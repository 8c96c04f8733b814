#include "ServiceFixture.h"

using ::testing::HasSubstr;
using ::testing::Not;

/** The service with a configuration file. */
class ConfigurationTest : public ServiceFixture
{
protected:
    Process &StartConfigured(const std::string &text, Environment more = {})
    {
        WriteFile(mPath, text);
        more["PARVANE_PLATFORM_CONF"] = mPath.string();
        return StartService(more);
    }

    const std::filesystem::path mPath = mFolder.Path() / "platform.conf";
};

TEST_F(ConfigurationTest, ARecordingOfTheFileReachesTheHost)
{
    WriteRecording({"0,77,,,,,,,,", "1000,77,,,,,,,,"});
    StartConfigured("[replay]\nfiles=recording.csv\nspeed=100\n");
    const Host host(LinkPath());

    // Worn state, once: it takes a heart rate.
    const std::vector<Bytes> answer = host.Ask({0x02, 0x00, 0x00, 0x04}, 1);

    ASSERT_EQ(answer.size(), 1U);
    EXPECT_EQ(ValueOf(answer.front()), 1.0F);
}

TEST_F(ConfigurationTest, UnknownKeysAreOneWarningAndTheServiceRuns)
{
    StartConfigured("[control]\ncolour=red\n");
    const Host host(LinkPath());
    EXPECT_EQ(host.Ask({0x04, 0x00, 0x00, 0x01}, 1).size(), 1U);

    EXPECT_THAT(
        mService->StandardError(),
        HasSubstr(" W platform: " + mPath.string() +
                  ": line 2: unknown key 'colour' in [control]; known are enabled, allow\n"));
    EXPECT_EQ(StopService(), 0);
}

TEST_F(ConfigurationTest, ABadValueStopsTheStartAndLeavesNothingBehind)
{
    StartConfigured("# watch\n[battery]\nlow_percent=101\n");

    EXPECT_EQ(mService->WaitForEnd(), 1);
    EXPECT_THAT(mService->StandardError(),
                HasSubstr(" E platform: " + mPath.string() +
                          ": line 3: [battery] low_percent is '101': it must be a whole number "
                          "from 1 to 100\n"));
    EXPECT_THAT(mService->StandardError(), Not(HasSubstr("app_create")));
    EXPECT_FALSE(std::filesystem::exists(mStateDirectory));
    EXPECT_FALSE(std::filesystem::exists(mRunDirectory));
}

TEST_F(ConfigurationTest, ABadRecordingIsToldWithTheLineThatNamesIt)
{
    const std::string recording = WriteRecording({"0,77,,,,,,,,", "1000,7x,,,,,,,,"});
    StartConfigured("# watch\n[replay]\nfiles=recording.csv\n");

    EXPECT_EQ(mService->WaitForEnd(), 1);
    EXPECT_THAT(mService->StandardError(),
                HasSubstr(" E platform: " + mPath.string() + ": line 3: [replay] files: " +
                          recording + ": line 3, column 2 (heart_rate): '7x' is not a"));
}

TEST_F(ConfigurationTest, AFileThatIsNotThereStopsTheStart)
{
    StartService({{"PARVANE_PLATFORM_CONF", mPath.string()}});

    EXPECT_EQ(mService->WaitForEnd(), 1);
    EXPECT_THAT(mService->StandardError(),
                HasSubstr(" E platform: cannot read the configuration file " + mPath.string() +
                          ": No such file or directory\n"));
}
