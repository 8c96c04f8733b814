#include <csignal>
#include <sys/resource.h>

#include "Program.h"
#include "ServiceFixture.h"

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

/** Starting, ending, and what stands in the way of either. */
class LifecycleTest : public ServiceFixture, public ::testing::WithParamInterface<int>
{};

TEST_P(LifecycleTest, SignalEndsTheServiceInOrder)
{
    StartService();
    ASSERT_TRUE(std::filesystem::exists(mFolder.Path()));
    const Host host(LinkPath());
    ASSERT_EQ(host.Ask({0x04, 0x00, 0x00, 0x01}, 1).size(), 1U);

    mService->Signal(GetParam());

    EXPECT_EQ(mService->WaitForEnd(), 0);
    EXPECT_TRUE(host.IsClosed());
    EXPECT_FALSE(std::filesystem::exists(LinkPath()));
    EXPECT_THAT(mService->StandardError(), HasSubstr("ParvaneMain: app_terminate(56) >  ###"));
}

INSTANTIATE_TEST_SUITE_P(Signals, LifecycleTest, ::testing::Values(SIGTERM, SIGINT));

using StartTest = ServiceFixture;

TEST_F(StartTest, LogLinesHaveTimePriorityAndTagButNoColoursInAFile)
{
    StartService();
    ASSERT_TRUE(mService->HasLogged("app_create"));

    EXPECT_THAT(mService->StandardError(),
                HasSubstr(" I Parvane: ParvaneMain: app_create(41) >  ###\n"));
    EXPECT_THAT(mService->StandardError(), Not(HasSubstr("\033")));
}

TEST_F(StartTest, ALimitOfTheSizeOfFilesIsAFullDiskAndEndsNothing)
{
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit small = {20000, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0); // what is started inherits it
    StartService();
    setrlimit(RLIMIT_FSIZE, &limit);

    EXPECT_EQ(Host(LinkPath()).Ask({0x04, 0x00, 0x00, 0x01}, 1).size(), 1U);
    EXPECT_THAT(mService->StandardError(), HasSubstr("preferences.db cannot be"));
    EXPECT_EQ(StopService(), 0);
}

TEST_F(StartTest, SecondInstanceLeavesTheFirstAlone)
{
    StartService();
    const Host host(LinkPath());
    ASSERT_EQ(host.Ask({0x04, 0x00, 0x00, 0x01}, 1).size(), 1U);

    Process second({PARVANE_PROGRAM}, BaseEnvironment(), mFolder.Path());

    EXPECT_EQ(second.WaitForEnd(), 0);
    EXPECT_THAT(second.StandardError(),
                HasSubstr("platform: another process uses the run-time directory " +
                          LinkPath().parent_path().string() +
                          ": end it, or set RUNTIME_DIRECTORY"));
    EXPECT_THAT(second.StandardError(), HasSubstr("main(114) > APP_ERROR_ALREADY_RUNNING"));
    EXPECT_THAT(second.StandardError(), HasSubstr("main(116) > app running is failed = [-114]"));
    EXPECT_EQ(host.Ask({0x04, 0x00, 0x00, 0x01}, 1).size(), 1U);
}

TEST_F(StartTest, SecondServiceOnTheSameStateDoesNotStart)
{
    StartService();
    const Host host(LinkPath());
    ASSERT_EQ(host.Ask({0x04, 0x00, 0x00, 0x01}, 1).size(), 1U);

    Environment environment = BaseEnvironment();
    environment["RUNTIME_DIRECTORY"] = (mFolder.Path() / "other-run").string();
    Process second({PARVANE_PROGRAM}, environment, mFolder.Path());

    EXPECT_EQ(second.WaitForEnd(), 0);
    EXPECT_THAT(second.StandardError(), HasSubstr("platform: another process uses the state "
                                                  "directory " +
                                                  mStateDirectory.string() + ": "));
    EXPECT_THAT(second.StandardError(), HasSubstr("main(116) > app running is failed = [-114]"));
    EXPECT_EQ(host.Ask({0x04, 0x00, 0x00, 0x01}, 1).size(), 1U);
}

TEST_F(StartTest, FileInPlaceOfTheLinkIsKeptAndNamed)
{
    std::filesystem::create_directory(mRunDirectory);
    std::filesystem::permissions(mRunDirectory, std::filesystem::perms(0700));
    for (const char *name : {"link.sock", "control.sock"}) {
        WriteFile(mRunDirectory / name, "a user's");
        StartService();
        EXPECT_EQ(mService->WaitForEnd(), 1);
        EXPECT_THAT(mService->StandardError(),
                    HasSubstr("cannot make the socket " + (mRunDirectory / name).string()));
        EXPECT_EQ(ReadFile(mRunDirectory / name), "a user's");
        std::filesystem::remove(mRunDirectory / name);
    }
}

TEST_F(StartTest, DirectoryThatOthersMayWriteToIsRefused)
{
    for (const auto &path : {mStateDirectory, mRunDirectory}) {
        std::filesystem::create_directory(path);
        std::filesystem::permissions(path, std::filesystem::perms(0770));
        StartService();
        EXPECT_EQ(mService->WaitForEnd(), 1);
        EXPECT_THAT(mService->StandardError(),
                    HasSubstr("directory " + path.string() + ": it has mode 0770 and owner "));
        std::filesystem::remove_all(path);
    }
}

TEST_F(StartTest, ArgumentsAreAnsweredAndStartNothing)
{
    Process help({PARVANE_PROGRAM, "--help"}, BaseEnvironment(), mFolder.Path());
    EXPECT_EQ(help.WaitForEnd(), 0);
    EXPECT_THAT(help.StandardOutput(), HasSubstr("Usage: parvane [--help | --version]\n"));
    EXPECT_THAT(help.StandardOutput(), HasSubstr("/etc/parvane/platform.conf"));
    EXPECT_THAT(help.StandardOutput(), HasSubstr("parvane(8)"));

    Process version({PARVANE_PROGRAM, "--version"}, BaseEnvironment(), mFolder.Path());
    EXPECT_EQ(version.WaitForEnd(), 0);
    EXPECT_EQ(version.StandardOutput(), "parvane " PARVANE_VERSION "\n");
    EXPECT_EQ(version.StandardError(), "");

    Parvane::Program full({PARVANE_PROGRAM, "--help"}, {.mEnvironment = {}, .mOutputToFull = true});
    EXPECT_EQ(full.ReadErrors(),
              "parvane: cannot write to standard output: No space left on device\n");
    EXPECT_EQ(full.Wait(), 1);
    Parvane::Program closed({PARVANE_PROGRAM, "--help"}, {.mEnvironment = {}, .mClosed = {1}});
    EXPECT_EQ(closed.Wait(), 0);

    Process other({PARVANE_PROGRAM, "--daemon\n"}, BaseEnvironment(), mFolder.Path());
    EXPECT_EQ(other.WaitForEnd(), 2);
    EXPECT_EQ(other.StandardError(),
              "parvane: unknown argument --daemon\\x0A; it takes none but --help and --version\n");
    EXPECT_FALSE(std::filesystem::exists(LinkPath()));
    EXPECT_FALSE(std::filesystem::exists(mStateDirectory));
}

TEST_F(StartTest, KilledServiceLeavesNothingThatKeepsTheNextFromStarting)
{
    StartService();
    ASSERT_EQ(Host(LinkPath()).Ask({0x04, 0x00, 0x00, 0x01}, 1).size(), 1U);
    mService->Signal(SIGKILL);
    ASSERT_EQ(mService->WaitForEnd(), -SIGKILL);

    StartService();

    ASSERT_TRUE(mService->HasLogged("app_create"));
    EXPECT_EQ(Host(LinkPath()).Ask({0x04, 0x00, 0x00, 0x01}, 1).size(), 1U);
}

TEST_F(StartTest, DirectoryThatCannotBeUsedIsOneLineAndStatusOne)
{
    WriteFile(mFolder.Path() / "file", "");
    const std::string path = (mFolder.Path() / "file" / "state").string();

    StartService({{"STATE_DIRECTORY", path}});

    EXPECT_EQ(mService->WaitForEnd(), 1);
    EXPECT_THAT(mService->StandardError(), HasSubstr(path));
    EXPECT_THAT(mService->StandardError(), HasSubstr("Not a directory"));
    EXPECT_THAT(mService->StandardError(), Not(ContainsRegex("\n.*\n")));
}

TEST_F(StartTest, MalformedRecordingIsRefusedWithItsPlace)
{
    const std::string recording = WriteRecording({"0,72,,,,,,,,", "1000,seventy,,,,,,,,"});

    StartService({{"PARVANE_TRACE", recording}});

    EXPECT_EQ(mService->WaitForEnd(), 1);
    EXPECT_THAT(mService->StandardError(), HasSubstr(recording));
    EXPECT_THAT(mService->StandardError(), HasSubstr("heart_rate"));
    EXPECT_THAT(mService->StandardError(), ContainsRegex("3"));
}

TEST_F(StartTest, BadAddressOrSpeedIsRefused)
{
    StartService({{"PARVANE_BT_ADDRESS", "AA:BB:CC"}});
    EXPECT_EQ(mService->WaitForEnd(), 1);
    EXPECT_THAT(mService->StandardError(), HasSubstr("PARVANE_BT_ADDRESS"));

    StartService({{"PARVANE_TRACE", WriteRecording({"0,72,,,,,,,,"})}, {"PARVANE_SPEED", "fast"}});
    EXPECT_EQ(mService->WaitForEnd(), 1);
    EXPECT_THAT(mService->StandardError(), HasSubstr("PARVANE_SPEED"));
}
