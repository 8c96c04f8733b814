#include "MockedBluez.h"
#include "PrivateBus.h"
#include "Requests.h"
#include "ServiceFixture.h"

using Parvane::Request::kMeasureHeartRate;
using Parvane::Request::kMeasureWearState;
using ParvanePlatform::MockedBluez;
using ParvanePlatform::PrivateBus;
using ::testing::HasSubstr;

namespace {

constexpr char kAdapter[] = "hci0";
constexpr char kAddress[] = "C0:FF:EE:00:00:01";

} // namespace

/** The service with a heart-rate strap, which a mocked BlueZ has. */
class StrapTest : public ServiceFixture
{
protected:
    void SetUp() override
    {
        if (const std::string reason = PrivateBus::WhyNot(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
        mBus = std::make_unique<PrivateBus>();
        mBluez = std::make_unique<MockedBluez>(*mBus);
        AddStrap();
        const std::filesystem::path configuration = mFolder.Path() / "platform.conf";
        WriteFile(configuration, "[sensors]\nheart_rate=ble\n");
        StartService({{"PARVANE_PLATFORM_CONF", configuration.string()},
                      {"DBUS_SYSTEM_BUS_ADDRESS", mBus->Address()}});
    }

    void AddStrap()
    {
        mBluez->AddAdapter(kAdapter);
        mStrap = mBluez->AddStrap(kAdapter, kAddress);
    }

    bool Calls(const std::string &method, int times) const
    {
        return Eventually([&] { return mBluez->Count(method) >= times; });
    }

    std::unique_ptr<PrivateBus> mBus;
    std::unique_ptr<MockedBluez> mBluez;
    std::string mStrap;
};

TEST_F(StrapTest, HeartRateReachesThePhone)
{
    ASSERT_TRUE(mService->HasLogged("app_service"));
    Process host({PARVANE_HOST_PROGRAM, "--socket", LinkPath().string(), "measure", "hr"},
                 BaseEnvironment(), mFolder.Path());
    ASSERT_TRUE(Calls("StartNotify", 1));

    mBluez->Notify(mStrap, {0x16, 72, 0x40, 0x03});

    EXPECT_EQ(host.WaitForEnd(std::chrono::seconds(40)), 0);
    EXPECT_THAT(host.StandardOutput(), HasSubstr("72 bpm"));
    EXPECT_TRUE(Calls("StopNotify", 1));
    EXPECT_TRUE(Calls("Disconnect", 1));
    EXPECT_EQ(mBluez->Count("StartNotify"), 1);
}

TEST_F(StrapTest, StrapWithContactIsWorn)
{
    const Host host(LinkPath());
    host.Send(kMeasureWearState);
    ASSERT_TRUE(Calls("StartNotify", 1));

    mBluez->Notify(mStrap, {0x06, 72});

    const auto answer = host.Receive();
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(ValueOf(*answer), 1.0F);
}

TEST_F(StrapTest, StrapThatHasLostContactIsNotWorn)
{
    const Host host(LinkPath());
    host.Send(kMeasureWearState);
    ASSERT_TRUE(Calls("StartNotify", 1));

    mBluez->Notify(mStrap, {0x04, 72});

    // Sooner than the 3 seconds after which it would not be worn for want of readings.
    const auto answer = host.Receive(std::chrono::milliseconds(2500));
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(ValueOf(*answer), 0.0F);
}

TEST_F(StrapTest, StrapThatIsPulledAwayAndGivenBackGoesOnMeasuring)
{
    const Host host(LinkPath());
    host.Send(kMeasureHeartRate);
    ASSERT_TRUE(Calls("StartNotify", 1));
    mBluez->Notify(mStrap, {0x06, 61});
    mBluez->SetReachable(mStrap, false);
    mBluez->Disconnect(mStrap);
    ASSERT_TRUE(Calls("Connect", 2));

    mBluez->SetReachable(mStrap, true);

    ASSERT_TRUE(Calls("StartNotify", 2));
    mBluez->Notify(mStrap, {0x06, 65});
    const auto answer = host.Receive();
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(ValueOf(*answer), 65.0F);
    EXPECT_THAT(mService->StandardError(), HasSubstr("ble: strap C0:FF:EE:00:00:01 is lost"));
}

TEST_F(StrapTest, BluezThatIsRestartedWhileMeasuringGoesOn)
{
    const Host host(LinkPath());
    host.Send(kMeasureHeartRate);
    ASSERT_TRUE(Calls("StartNotify", 1));
    mBluez->Notify(mStrap, {0x06, 61});

    mBluez->Start();
    AddStrap();

    ASSERT_TRUE(Calls("StartNotify", 1));
    mBluez->Notify(mStrap, {0x06, 65});
    const auto answer = host.Receive();
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(ValueOf(*answer), 65.0F);
}

TEST_F(StrapTest, ServiceThatEndsLeavesNoConnectionBehind)
{
    const Host host(LinkPath());
    host.Send(kMeasureHeartRate);
    ASSERT_TRUE(Calls("StartNotify", 1));

    EXPECT_EQ(StopService(), 0);

    EXPECT_TRUE(Calls("StopNotify", 1));
    EXPECT_TRUE(Calls("Disconnect", 1));
}
