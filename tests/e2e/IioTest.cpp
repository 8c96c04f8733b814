#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "MockedSysfs.h"
#include "Requests.h"
#include "ServiceFixture.h"

using Parvane::FlaggedRequest::kStartActivity;
using Parvane::Request::kMeasureSteps;

namespace {

constexpr char kSteps[] = "in_steps_input";
constexpr char kVelocity[] = "in_velocity_x_input";
constexpr char kWalking[] = "in_activity_walking_input";
constexpr char kRunning[] = "in_activity_running_input";

// Values of the activity on the wire.
constexpr float kIsWalking = 1.0F;
constexpr float kIsRunning = 2.0F;

constexpr unsigned kCommandMask = 0x0F;
constexpr unsigned kMeasureCommand = 2;
constexpr unsigned kStartCommand = 3;

} // namespace

/** Steps and activity from industrial-I/O devices, as a phone sees them. */
class IioTest : public ServiceFixture
{
protected:
    /** Starts the service on the devices below `root`; without one, on those of the system. */
    void StartOn(const std::string &root, const Environment &more = {})
    {
        const std::filesystem::path path = mFolder.Path() / "platform.conf";
        WriteFile(path, "[sensors]\npedometer=iio\nactivity=iio\n[iio]\nperiod_ms=100\n" +
                            (root.empty() ? root : "root=" + root + "\n"));
        Environment environment = more;
        environment["PARVANE_PLATFORM_CONF"] = path.string();
        StartService(environment);
    }

    int TimesLogged(const std::string &text) const
    {
        const std::string log = mService->StandardError();
        int times = 0;
        for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
            ++times;
        }
        return times;
    }

    /** Receives until a packet of `command` has the value; whether it came. */
    static bool HasCome(const Host &host, unsigned command, float value)
    {
        while (const auto packet = host.Receive()) {
            if ((packet->front() & kCommandMask) == command && ValueOf(*packet) == value) {
                return true;
            }
        }
        return false;
    }

    /**
     * Receives the two readings that follow the first request, none of which counts a step: the
     * baseline, and half a second later the answer to a query. Steps before that count twice.
     */
    static bool BaselineHasCome(const Host &host)
    {
        if (!HasCome(host, kMeasureCommand, 0.0F)) {
            return false;
        }
        return HasCome(host, kMeasureCommand, 0.0F);
    }

    /** Receives pushes of steps until one counts more than `steps`; none may count less. */
    static float MoreStepsThan(const Host &host, float steps)
    {
        while (const auto packet = host.Receive()) {
            const float value = ValueOf(*packet);
            EXPECT_GE(value, steps);
            if (value > steps) {
                return value;
            }
        }
        return -1.0F;
    }
};

/** The devices as files in a directory. */
class IioDirectoryTest : public IioTest
{
protected:
    IioDirectoryTest() { std::filesystem::create_directories(Devices()); }

    void Start() { StartOn(Root().string()); }

    std::filesystem::path Root() const { return mFolder.Path() / "sys"; }
    std::filesystem::path Devices() const { return Root() / "bus/iio/devices"; }

    /** Makes a device, which appears with all its files at once. */
    void Add(const std::string &device, const std::map<std::string, std::string> &files) const
    {
        const std::filesystem::path made = mFolder.Path() / "made";
        std::filesystem::create_directory(made);
        for (const auto &[file, text] : files) {
            WriteFile(made / file, text);
        }
        std::filesystem::rename(made, Devices() / device);
    }

    void Remove(const std::string &device) const
    {
        const std::filesystem::path removed = mFolder.Path() / "removed";
        std::filesystem::remove_all(removed);
        std::filesystem::rename(Devices() / device, removed);
    }

    /** Changes a file, of which a reader sees the old content or the new one. */
    void Set(const std::string &device, const std::string &file, const std::string &text) const
    {
        WriteFile(mFolder.Path() / "text", text);
        std::filesystem::rename(mFolder.Path() / "text", Devices() / device / file);
    }
};

TEST_F(IioDirectoryTest, StepsReachTheHost)
{
    Add("iio:device0", {{"name", "watch\n"}, {kSteps, "1000\n"}});
    Start();
    const Host host(LinkPath());
    host.Send(kMeasureSteps);
    ASSERT_TRUE(BaselineHasCome(host));

    Set("iio:device0", kSteps, "1025\n");

    EXPECT_TRUE(HasCome(host, kMeasureCommand, 25.0F));
}

TEST_F(IioDirectoryTest, VelocityThatVariesOverConstantStepsDoesNotGrowTheTotal)
{
    Add("iio:device0", {{kSteps, "1000\n"}, {kVelocity, "1\n"}});
    Start();
    const Host host(LinkPath());
    host.Send(kMeasureSteps);
    ASSERT_TRUE(BaselineHasCome(host));
    Set("iio:device0", kSteps, "1010\n");
    ASSERT_EQ(MoreStepsThan(host, 0.0F), 10.0F);

    for (int times = 1; times <= 3; ++times) {
        // The line of a value that is good again proves that this one has been read.
        Set("iio:device0", kVelocity, "x" + std::to_string(times) + "\n");
        ASSERT_TRUE(mService->HasLogged(": 'x" + std::to_string(times) + "' is not a number"));
        Set("iio:device0", kVelocity, std::to_string(times + 1) + "\n");
        ASSERT_TRUE(Eventually([&] { return TimesLogged("is good again") == times; }));
    }
    Set("iio:device0", kSteps, "1011\n");

    // The 10 from before and 11 since the baseline; each reading in between would have added 10.
    EXPECT_EQ(MoreStepsThan(host, 10.0F), 21.0F);
}

TEST_F(IioDirectoryTest, ActivityReachesTheHost)
{
    Add("iio:device3", {{kWalking, "80\n"}, {kRunning, "20\n"}});
    Start();
    const Host host(LinkPath());
    host.Send(kStartActivity);
    ASSERT_TRUE(HasCome(host, kStartCommand, kIsWalking));

    Set("iio:device3", kRunning, "95\n");

    EXPECT_TRUE(HasCome(host, kStartCommand, kIsRunning));
}

TEST_F(IioDirectoryTest, DeviceThatIsPulledMidMeasurementIsPickedUpAgainAndTheTotalNeverFalls)
{
    Add("iio:device0", {{"name", "watch\n"}, {kSteps, "1000\n"}, {kWalking, "80\n"}});
    Start();
    const Host host(LinkPath());
    host.Send(kMeasureSteps);
    ASSERT_TRUE(BaselineHasCome(host));
    Set("iio:device0", kSteps, "1010\n");
    const float before = MoreStepsThan(host, 0.0F);
    ASSERT_EQ(before, 10.0F);

    Remove("iio:device0");
    ASSERT_TRUE(mService->HasLogged("no device has in_steps_input"));
    Add("iio:device5", {{"name", "watch\n"}, {kSteps, "3\n"}, {kWalking, "80\n"}});
    ASSERT_TRUE(mService->HasLogged("has gone back from 1010 to 3"));
    Set("iio:device5", kSteps, "8\n");

    // 15 steps since the baseline, on top of the total as it stands.
    EXPECT_EQ(MoreStepsThan(host, before), 25.0F);
    EXPECT_EQ(StopService(), 0);
}

TEST_F(IioDirectoryTest, ActivityIsPickedUpAgainFromADeviceThatReturns)
{
    Add("iio:device0", {{kWalking, "80\n"}});
    Start();
    const Host host(LinkPath());
    host.Send(kStartActivity);
    ASSERT_TRUE(HasCome(host, kStartCommand, kIsWalking));

    Remove("iio:device0");
    ASSERT_TRUE(mService->HasLogged("no device has in_activity_*_input"));
    Add("iio:device1", {{kWalking, "10\n"}, {kRunning, "90\n"}});

    EXPECT_TRUE(HasCome(host, kStartCommand, kIsRunning));
}

TEST_F(IioDirectoryTest, RubbishInTheFilesIsSkipped)
{
    Add("iio:device0", {{kSteps, "1000\n"}});
    Start();
    const Host host(LinkPath());
    host.Send(kMeasureSteps);
    ASSERT_TRUE(BaselineHasCome(host));

    int times = 0;
    for (const std::string text : {"nan", "-1", "18446744073709551616", "12abc", ""}) {
        Set("iio:device0", kSteps, text + "\n");
        EXPECT_TRUE(mService->HasLogged(": '" + text + "' is ")) << text;
        Set("iio:device0", kSteps, "1000\n");
        ++times;
        ASSERT_TRUE(Eventually([&] { return TimesLogged("is good again") == times; }));
    }
    Set("iio:device0", kSteps, "1007\n");

    EXPECT_EQ(MoreStepsThan(host, 0.0F), 7.0F);
}

/** The devices as a mocked /sys has them. */
class IioMockedSysfsTest : public IioTest
{
protected:
    void SetUp() override
    {
        if (const std::string reason = MockedSysfs::WhyNot(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
        mSysfs.emplace();
    }

    std::optional<MockedSysfs> mSysfs;
};

TEST_F(IioMockedSysfsTest, StepsAndActivityReachTheHostThroughALossOfTheDevice)
{
    mSysfs->AddDevice("iio", "iio:device0",
                      {{"name", "watch\n"},
                       {kSteps, "500\n"},
                       {"in_steps_en", "0\n"},
                       {kWalking, "90\n"},
                       {kRunning, "0\n"}});
    StartOn("", mSysfs->Variables());
    const Host host(LinkPath());
    host.Send(kMeasureSteps);
    ASSERT_TRUE(BaselineHasCome(host));
    EXPECT_EQ(mSysfs->Attribute("iio:device0", "in_steps_en"), "1\n");
    mSysfs->SetAttribute("iio:device0", kSteps, "520\n");
    const float before = MoreStepsThan(host, 0.0F);
    ASSERT_EQ(before, 20.0F);

    mSysfs->RemoveDevice("iio:device0");
    ASSERT_TRUE(mService->HasLogged("no device has in_steps_input"));
    mSysfs->AddDevice(
        "iio", "iio:device2",
        {{"name", "watch\n"}, {kSteps, "521\n"}, {kWalking, "0\n"}, {kRunning, "90\n"}});

    EXPECT_EQ(MoreStepsThan(host, before), 41.0F);
    host.Send(kStartActivity);
    EXPECT_TRUE(HasCome(host, kStartCommand, kIsRunning));
    EXPECT_EQ(StopService(), 0);
}
