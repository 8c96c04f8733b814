#include "BleSource.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "BusTest.h"
#include "MockedBluez.h"

namespace ParvanePlatform {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kAdapter[] = "hci0";
constexpr char kAddress[] = "C0:FF:EE:00:00:01";

std::string ToText(const SensorReading &reading)
{
    std::ostringstream text;
    for (const SensorValue &value : reading) {
        const std::string key = value.mKey;
        text << (text.tellp() > 0 ? " " : "") << key.substr(key.rfind('/') + 1) << '=';
        std::visit([&text](auto number) { text << number; }, value.mValue);
    }
    return text.str();
}

int CountIn(const std::string &text, const std::string &part)
{
    int count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

} // namespace

/** A source on a bus of its own, with BlueZ and straps that do what the test says. */
class BleSourceTest : public BusTest, public SensorListener
{
protected:
    void SetUp() override
    {
        BusTest::SetUp();
        mSystemBus = std::make_shared<SystemBus>();
        MakeSource();
    }

    void TearDown() override
    {
        // All that was cancelled still comes back, to nobody.
        mSource.reset();
        mSystemBus.reset();
        RunWhileBusy();
    }

    void MakeSource(const BleSettings &settings = {})
    {
        auto timer = std::make_unique<ManualTimer>();
        mTimer = timer.get();
        mSource = std::make_unique<BleSource>(mSystemBus, settings, mClock, std::move(timer));
        mSource->SetListener(this);
    }

    /** Starts BlueZ with one adapter and, unless the test says otherwise, one strap. */
    void StartBluez()
    {
        mBluez = std::make_unique<MockedBluez>(*mBus);
        mBluez->AddAdapter(kAdapter);
    }

    void StartBluezWithStrap()
    {
        StartBluez();
        mStrap = mBluez->AddStrap(kAdapter, kAddress);
    }

    bool StartsNotifying(int times = 1)
    {
        return Eventually([&] { return mBluez->Count("StartNotify") >= times; }) && Settle();
    }

    /** Starts the item and waits until the strap may notify. */
    void StartAndMeasure()
    {
        ASSERT_EQ(mSource->Start(ContextItem::HeartRate), 0);
        ASSERT_TRUE(StartsNotifying());
    }

    /** True once BlueZ has had all that was sent to it, and the source all that came back. */
    bool Settle() { return RoundTrip("org.bluez"); }

    bool RoundTrip(const char *name)
    {
        GDBusConnection *connection = mSystemBus->Connection();
        if (connection == nullptr) {
            return false;
        }
        const Parvane::VariantPtr reply(g_dbus_connection_call_sync(
            connection, name, "/", "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr,
            G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr, nullptr));
        RunWhileBusy();
        return reply != nullptr;
    }

    /** Lets the strap notify a value and waits for the reading. */
    std::string ReadingOfValue(const std::vector<unsigned char> &value)
    {
        mReadings.clear();
        mBluez->Notify(mStrap, value);
        return Eventually([this] { return !mReadings.empty(); }) ? mReadings.back() : "none";
    }

    bool HasTimer()
    {
        return Eventually([this] { return mTimer->mDueUs.has_value(); });
    }

    std::string Latest() const
    {
        const auto latest = mSource->Latest(ContextItem::HeartRate);
        return latest ? ToText(*latest) : "none";
    }

    void OnReading(ContextItem item, const SensorReading &reading) override
    {
        EXPECT_EQ(item, ContextItem::HeartRate);
        mReadings.push_back(ToText(reading));
        if (mWhenRead) {
            std::exchange(mWhenRead, nullptr)();
        }
    }

    std::unique_ptr<MockedBluez> mBluez;
    std::shared_ptr<SystemBus> mSystemBus;
    ManualClock mClock;
    ManualTimer *mTimer = nullptr;
    std::unique_ptr<BleSource> mSource;
    std::string mStrap;
    std::vector<std::string> mReadings;
    std::function<void()> mWhenRead;
};

TEST_F(BleSourceTest, ServesTheHeartRateOnly)
{
    EXPECT_EQ(mSource->Start(ContextItem::Pedometer), -95);
    EXPECT_EQ(mSource->Start(ContextItem::Activity), -95);
    EXPECT_EQ(mSource->Start(ContextItem::Gesture), -95);
    EXPECT_EQ(mSource->Start(ContextItem::HeartRate), 0);
    mSource->Stop(ContextItem::Pedometer);
    EXPECT_EQ(mSource->Latest(ContextItem::Pedometer), std::nullopt);
}

TEST_F(BleSourceTest, ConnectsAKnownStrapAndDeliversItsRate)
{
    StartBluezWithStrap();

    StartAndMeasure();

    EXPECT_EQ(ReadingOfValue({0x06, 72}), "heart_rate=72");
    EXPECT_THAT(mBluez->Calls(), ElementsAre("GetManagedObjects", "Connect", "StartNotify"));
    EXPECT_FALSE(mTimer->mDueUs);
}

TEST_F(BleSourceTest, DeliversWideRatesAndTheLastInterval)
{
    StartBluezWithStrap();
    StartAndMeasure();

    EXPECT_EQ(ReadingOfValue({0x01, 0x2C, 0x01}), "heart_rate=300");
    EXPECT_EQ(ReadingOfValue({0x1E, 72, 0x10, 0x00, 0x00, 0x02, 0x00, 0x04}),
              "heart_rate=72 peak_to_peak=1000");
}

TEST_F(BleSourceTest, LostContactIsMinusThree)
{
    StartBluezWithStrap();
    StartAndMeasure();

    EXPECT_EQ(ReadingOfValue({0x14, 72, 0x00, 0x04}), "heart_rate=-3");
    EXPECT_EQ(ReadingOfValue({0x16, 72, 0x00, 0x04}), "heart_rate=72 peak_to_peak=1000");
}

TEST_F(BleSourceTest, ValuesThatAreNoMeasurementAreLeftOutWithOneLine)
{
    StartBluezWithStrap();
    StartAndMeasure();
    StderrCapture log;

    mBluez->Notify(mStrap, {});
    mBluez->Notify(mStrap, {0x01, 72});
    mBluez->Notify(mStrap, {0x18, 72, 1, 2});
    mBluez->NotifyText(mStrap);

    EXPECT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");
    EXPECT_EQ(mReadings.size(), 1U);
    EXPECT_EQ(CountIn(log.Take(), "no measurement"), 1);
}

TEST_F(BleSourceTest, AnyBytesOfAnyLengthAreSurvived)
{
    StartBluezWithStrap();
    StartAndMeasure();

    for (unsigned flags = 0; flags < 256; flags += 5) {
        for (const std::size_t size : {1U, 2U, 5U, 20U, 512U, 5000U}) {
            std::vector<unsigned char> value(size, 0xFF);
            value[0] = static_cast<unsigned char>(flags);
            mBluez->Notify(mStrap, value);
        }
    }

    EXPECT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");
}

TEST_F(BleSourceTest, NothingIsAskedOfBluezBeforeTheStart)
{
    StartBluezWithStrap();

    ASSERT_TRUE(Settle());

    EXPECT_THAT(mBluez->Calls(), IsEmpty());
}

TEST_F(BleSourceTest, ConnectionThatIsNotSignalledIsAskedFor)
{
    StartBluezWithStrap();
    mBluez->LetConnectingBeSilent(mStrap);

    StartAndMeasure();

    EXPECT_EQ(ReadingOfValue({0x00, 72}), "heart_rate=72");
    EXPECT_THAT(mBluez->Calls(), ElementsAre("GetManagedObjects", "Connect", "StartNotify"));
    StderrCapture log;
    mBluez->Disconnect(mStrap);
    ASSERT_TRUE(Settle());
    EXPECT_THAT(log.Take(), HasSubstr("is lost"));
}

TEST_F(BleSourceTest, StopTakesBackNotificationsAndTheConnectionThatItMade)
{
    StartBluezWithStrap();
    StartAndMeasure();
    ASSERT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");

    mSource->Stop(ContextItem::HeartRate);

    ASSERT_TRUE(Settle());
    EXPECT_THAT(mBluez->Calls(), ElementsAre("GetManagedObjects", "Connect", "StartNotify",
                                             "StopNotify", "Disconnect"));
    EXPECT_FALSE(mTimer->mDueUs);
    EXPECT_EQ(NextWakeMs(), -1);
}

TEST_F(BleSourceTest, ConnectionOfSomebodyElseStaysWhenItStops)
{
    StartBluezWithStrap();
    mBluez->Connect(mStrap);
    StartAndMeasure();
    ASSERT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");

    mSource->Stop(ContextItem::HeartRate);

    ASSERT_TRUE(Settle());
    EXPECT_THAT(mBluez->Calls(), ElementsAre("GetManagedObjects", "StartNotify", "StopNotify"));
}

TEST_F(BleSourceTest, StoppedSourceHearsNothingOfTheStrap)
{
    StartBluezWithStrap();
    mBluez->Connect(mStrap);
    StartAndMeasure();
    mSource->Stop(ContextItem::HeartRate);
    ASSERT_TRUE(Settle());
    const std::size_t calls = mBluez->Calls().size();

    mBluez->Notify(mStrap, {0x00, 61});
    mBluez->Disconnect(mStrap);
    mBluez->Connect(mStrap);

    ASSERT_TRUE(Settle());
    EXPECT_THAT(mReadings, IsEmpty());
    EXPECT_EQ(mBluez->Calls().size(), calls);
    EXPECT_EQ(NextWakeMs(), -1);
}

TEST_F(BleSourceTest, StartedAgainItMeasuresAgain)
{
    StartBluezWithStrap();
    StartAndMeasure();
    mSource->Stop(ContextItem::HeartRate);

    ASSERT_EQ(mSource->Start(ContextItem::HeartRate), 0);

    ASSERT_TRUE(StartsNotifying(2));
    EXPECT_EQ(ReadingOfValue({0x00, 62}), "heart_rate=62");
}

TEST_F(BleSourceTest, SecondStartChangesNothing)
{
    StartBluezWithStrap();
    StartAndMeasure();

    ASSERT_EQ(mSource->Start(ContextItem::HeartRate), 0);

    EXPECT_EQ(ReadingOfValue({0x00, 62}), "heart_rate=62");
    EXPECT_EQ(mReadings.size(), 1U);
    EXPECT_EQ(mBluez->Count("StartNotify"), 1);
}

TEST_F(BleSourceTest, StopRightAfterTheStartLeavesNothing)
{
    StartBluezWithStrap();

    ASSERT_EQ(mSource->Start(ContextItem::HeartRate), 0);
    mSource->Stop(ContextItem::HeartRate);

    ASSERT_TRUE(Settle());
    EXPECT_THAT(mBluez->Calls(), IsEmpty());
    EXPECT_EQ(NextWakeMs(), -1);
}

TEST_F(BleSourceTest, StopAtAnyMomentOnTheWayLeavesNothingBehind)
{
    StartBluezWithStrap();
    // One more turn of the loop each time, until the way is behind it.
    for (int turns = 0; mBluez->Count("StartNotify") < 3; ++turns) {
        SCOPED_TRACE(turns);
        ASSERT_EQ(mSource->Start(ContextItem::HeartRate), 0);
        const int started = mBluez->Count("StartNotify");
        for (int turn = 0; turn < turns && mBluez->Count("StartNotify") == started; ++turn) {
            g_main_context_iteration(nullptr, TRUE);
        }

        mSource->Stop(ContextItem::HeartRate);

        ASSERT_TRUE(Settle());
        EXPECT_EQ(mBluez->Count("StartNotify"), mBluez->Count("StopNotify"));
        EXPECT_EQ(mBluez->Count("Connect"), mBluez->Count("Disconnect"));
        EXPECT_FALSE(mTimer->mDueUs);
        EXPECT_EQ(NextWakeMs(), -1);
        EXPECT_THAT(mReadings, IsEmpty());
    }
}

TEST_F(BleSourceTest, ListenerMayStopAndStartInsideAReading)
{
    StartBluezWithStrap();
    mBluez->Connect(mStrap);
    StartAndMeasure();
    mWhenRead = [this] {
        mSource->Stop(ContextItem::HeartRate);
        EXPECT_EQ(mSource->Start(ContextItem::HeartRate), 0);
    };

    ASSERT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");

    ASSERT_TRUE(StartsNotifying(2));
    EXPECT_EQ(ReadingOfValue({0x00, 62}), "heart_rate=62");
}

TEST_F(BleSourceTest, SourceMayEndInsideAReading)
{
    StartBluezWithStrap();
    StartAndMeasure();
    mWhenRead = [this] { mSource.reset(); };

    EXPECT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");

    ASSERT_TRUE(Settle());
    EXPECT_EQ(mBluez->Count("StopNotify"), 1);
}

TEST_F(BleSourceTest, NothingComesBackAfterTheSourcesEnd)
{
    StartBluezWithStrap();
    ASSERT_EQ(mSource->Start(ContextItem::HeartRate), 0);
    ASSERT_TRUE(Eventually([this] { return mBluez->Count("Connect") == 1; }));

    mSource.reset();

    ASSERT_TRUE(Settle());
    EXPECT_EQ(mBluez->Count("Disconnect"), 1);
    EXPECT_EQ(mBluez->Count("StartNotify"), mBluez->Count("StopNotify"));
    EXPECT_THAT(mReadings, IsEmpty());
    EXPECT_EQ(NextWakeMs(), -1);
}

TEST_F(BleSourceTest, LastWordsLeaveBeforeTheBusIsLetGo)
{
    StartBluezWithStrap();
    StartAndMeasure();

    mSource.reset();
    mSystemBus.reset();

    EXPECT_TRUE(Eventually([this] { return mBluez->Count("Disconnect") == 1; }));
}

TEST_F(BleSourceTest, StrapThatIsNotThereYetIsSearchedFor)
{
    StartBluez();
    ASSERT_EQ(mSource->Start(ContextItem::HeartRate), 0);
    ASSERT_TRUE(Eventually([this] { return mBluez->Count("StartDiscovery") == 1; }));
    EXPECT_FALSE(mTimer->mDueUs);

    mStrap = mBluez->AddStrap(kAdapter, kAddress);

    ASSERT_TRUE(StartsNotifying());
    EXPECT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");
    EXPECT_THAT(mBluez->Calls(),
                ElementsAre("GetManagedObjects", "SetDiscoveryFilter", "StartDiscovery",
                            "StopDiscovery", "Connect", "StartNotify"));
}

TEST_F(BleSourceTest, StopEndsTheSearch)
{
    StartBluez();
    ASSERT_EQ(mSource->Start(ContextItem::HeartRate), 0);
    ASSERT_TRUE(Eventually([this] { return mBluez->Count("StartDiscovery") == 1; }));

    mSource->Stop(ContextItem::HeartRate);

    EXPECT_TRUE(Eventually([this] { return mBluez->Count("StopDiscovery") == 1; }));
    ASSERT_TRUE(Settle());
    EXPECT_EQ(NextWakeMs(), -1);
}

TEST_F(BleSourceTest, SearchThatBeginsAfterTheStopIsEnded)
{
    StartBluez();
    mBluez->RefuseSearch(kAdapter, true);
    const StderrCapture quiet;
    ASSERT_EQ(mSource->Start(ContextItem::HeartRate), 0);
    ASSERT_TRUE(HasTimer());
    mBluez->RefuseSearch(kAdapter, false);
    const int refused = mBluez->Count("StartDiscovery");
    mTimer->Fire(); // asks for the search

    mSource->Stop(ContextItem::HeartRate);

    EXPECT_TRUE(Eventually([this] { return mBluez->Count("StopDiscovery") == 1; }));
    EXPECT_EQ(mBluez->Count("StartDiscovery"), refused + 1);
    EXPECT_EQ(mBluez->Calls().back(), "StopDiscovery");
}

TEST_F(BleSourceTest, NewStrapIsFoundWhileThoseThatBluezRemembersAreOutOfReach)
{
    StartBluezWithStrap();
    mBluez->SetReachable(mStrap, false);
    StderrCapture log;
    ASSERT_EQ(mSource->Start(ContextItem::HeartRate), 0);
    ASSERT_TRUE(Eventually([this] { return mBluez->Count("StartDiscovery") == 1; }));
    ASSERT_TRUE(HasTimer());

    mStrap = mBluez->AddStrap(kAdapter, "C0:FF:EE:00:00:02");

    ASSERT_TRUE(StartsNotifying());
    EXPECT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");
    EXPECT_EQ(mBluez->Count("StopDiscovery"), 1);
    EXPECT_FALSE(mTimer->mDueUs);
    EXPECT_EQ(CountIn(log.Take(), "searching"), 0);
}

TEST_F(BleSourceTest, NothingIsSearchedForWhileTheConfiguredStrapIsKnown)
{
    StartBluezWithStrap();
    mBluez->SetReachable(mStrap, false);
    BleSettings settings;
    settings.mDevice = kAddress;
    MakeSource(settings);
    const StderrCapture quiet;

    ASSERT_EQ(mSource->Start(ContextItem::HeartRate), 0);

    ASSERT_TRUE(HasTimer());
    ASSERT_TRUE(Settle());
    EXPECT_EQ(mBluez->Count("StartDiscovery"), 0);
}

TEST_F(BleSourceTest, RefusedSearchIsTriedAgainAfterAPause)
{
    StderrCapture log;
    StartBluez();
    mBluez->RefuseSearch(kAdapter, true);
    ASSERT_EQ(mSource->Start(ContextItem::HeartRate), 0);
    ASSERT_TRUE(HasTimer());
    EXPECT_EQ(*mTimer->mDueUs, 1'000'000);
    mTimer->Fire();
    ASSERT_TRUE(HasTimer());
    EXPECT_EQ(*mTimer->mDueUs, 2'000'000);
    mBluez->RefuseSearch(kAdapter, false);

    mTimer->Fire();

    ASSERT_TRUE(Eventually([this] { return mBluez->Count("StartDiscovery") == 3; }));
    ASSERT_TRUE(Settle());
    EXPECT_FALSE(mTimer->mDueUs);
    const std::string lines = log.Take();
    EXPECT_EQ(CountIn(lines, "ble: the search is refused: No search today\n"), 1);
    EXPECT_EQ(CountIn(lines, "ble: no strap is there yet, searching\n"), 1);
}

TEST_F(BleSourceTest, LostStrapIsConnectedAgainWhenItReturns)
{
    StartBluezWithStrap();
    StartAndMeasure();
    ASSERT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");
    mBluez->SetReachable(mStrap, false);
    StderrCapture log;
    mBluez->Disconnect(mStrap);
    ASSERT_TRUE(HasTimer());
    mTimer->Fire();
    ASSERT_TRUE(HasTimer());
    EXPECT_EQ(Latest(), "none");
    mBluez->SetReachable(mStrap, true);

    mTimer->Fire();

    ASSERT_TRUE(StartsNotifying(2));
    EXPECT_EQ(ReadingOfValue({0x00, 62}), "heart_rate=62");
    EXPECT_EQ(log.Take(), "W platform: ble: strap C0:FF:EE:00:00:01 is lost\n"
                          "W platform: ble: strap C0:FF:EE:00:00:01 cannot be connected: Page "
                          "Timeout\n"
                          "I platform: ble: strap C0:FF:EE:00:00:01 measures\n");
}

TEST_F(BleSourceTest, StrapThatBluezForgetsIsSearchedForAndFoundAgain)
{
    StartBluezWithStrap();
    StartAndMeasure();
    ASSERT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");
    mBluez->Disconnect(mStrap);
    mBluez->RemoveStrap(mStrap);
    ASSERT_TRUE(Eventually([this] { return mBluez->Count("StartDiscovery") == 1; }));

    mStrap = mBluez->AddStrap(kAdapter, kAddress);

    ASSERT_TRUE(Eventually([this] { return mBluez->Count("StopDiscovery") == 1; }));
    ASSERT_TRUE(StartsNotifying(2));
    EXPECT_EQ(ReadingOfValue({0x00, 62}), "heart_rate=62");
}

TEST_F(BleSourceTest, StrapThatComesBackByItselfIsUsedAtOnce)
{
    StartBluezWithStrap();
    StartAndMeasure();
    ASSERT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");
    mBluez->SetReachable(mStrap, false);
    mBluez->Disconnect(mStrap);
    ASSERT_TRUE(HasTimer());

    mBluez->Connect(mStrap);

    ASSERT_TRUE(StartsNotifying(2));
    EXPECT_EQ(ReadingOfValue({0x00, 62}), "heart_rate=62");
    EXPECT_FALSE(mTimer->mDueUs);
}

TEST_F(BleSourceTest, StopWhilePausingEndsThePause)
{
    StartBluezWithStrap();
    mBluez->SetReachable(mStrap, false);
    ASSERT_EQ(mSource->Start(ContextItem::HeartRate), 0);
    ASSERT_TRUE(HasTimer());

    mSource->Stop(ContextItem::HeartRate);

    EXPECT_FALSE(mTimer->mDueUs);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(mBluez->Count("Connect"), 1);
    EXPECT_EQ(mBluez->Count("Disconnect"), 0);
    EXPECT_EQ(NextWakeMs(), -1);
}

TEST_F(BleSourceTest, PausesDoubleUpToHalfAMinuteAndLogOnce)
{
    StderrCapture log;
    StartBluezWithStrap();
    mBluez->SetReachable(mStrap, false);
    ASSERT_EQ(mSource->Start(ContextItem::HeartRate), 0);
    std::vector<std::int64_t> seconds;
    for (int i = 0; i < 7; ++i) {
        ASSERT_TRUE(HasTimer());
        seconds.push_back(*mTimer->mDueUs / 1'000'000);
        mTimer->Fire();
    }

    EXPECT_THAT(seconds, ElementsAre(1, 2, 4, 8, 16, 30, 30));
    EXPECT_EQ(CountIn(log.Take(), "cannot be connected"), 1);
}

TEST_F(BleSourceTest, OtherStrapIsTriedBeforeThePause)
{
    StartBluezWithStrap();
    mBluez->SetReachable(mStrap, false);
    mStrap = mBluez->AddStrap(kAdapter, "C0:FF:EE:00:00:02");

    StartAndMeasure();

    EXPECT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");
    EXPECT_EQ(mBluez->Count("Connect"), 2);
    EXPECT_FALSE(mTimer->mDueUs);
}

TEST_F(BleSourceTest, OnlyTheConfiguredStrapIsUsed)
{
    MakeSource({"", "C0:FF:EE:00:00:02"});
    StartBluezWithStrap();
    ASSERT_EQ(mSource->Start(ContextItem::HeartRate), 0);
    ASSERT_TRUE(Eventually([this] { return mBluez->Count("StartDiscovery") == 1; }));
    EXPECT_EQ(mBluez->Count("Connect"), 0);

    mStrap = mBluez->AddStrap(kAdapter, "C0:FF:EE:00:00:02");

    ASSERT_TRUE(StartsNotifying());
    EXPECT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");
    EXPECT_EQ(mBluez->Count("Connect"), 1);
}

TEST_F(BleSourceTest, OnlyTheConfiguredAdapterIsUsed)
{
    MakeSource({"hci1", ""});
    StderrCapture log;
    StartBluezWithStrap();
    ASSERT_EQ(mSource->Start(ContextItem::HeartRate), 0);
    ASSERT_TRUE(Eventually([this] { return mBluez->Count("GetManagedObjects") == 1; }));
    ASSERT_TRUE(Settle());
    EXPECT_EQ(mBluez->Calls().size(), 1U);
    EXPECT_EQ(NextWakeMs(), -1);

    mBluez->AddAdapter("hci1");
    mStrap = mBluez->AddStrap("hci1", "C0:FF:EE:00:00:02");

    ASSERT_TRUE(StartsNotifying());
    EXPECT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");
    EXPECT_THAT(log.Take(), HasSubstr("W platform: ble: no adapter hci1\n"));
}

TEST_F(BleSourceTest, AdapterThatIsPoweredOffEndsTheMeasuringAndOnResumesIt)
{
    StartBluezWithStrap();
    StartAndMeasure();
    ASSERT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");
    StderrCapture log;
    mBluez->Disconnect(mStrap);
    mBluez->SetPowered(kAdapter, false);
    mBluez->SetReachable(mStrap, false);
    ASSERT_TRUE(Settle());
    mBluez->SetReachable(mStrap, true);

    mBluez->SetPowered(kAdapter, true);

    ASSERT_TRUE(Eventually([this] { return mBluez->Count("StartNotify") >= 2; }));
    ASSERT_TRUE(Settle());
    EXPECT_EQ(ReadingOfValue({0x00, 62}), "heart_rate=62");
    EXPECT_THAT(log.Take(), HasSubstr("W platform: ble: no powered Bluetooth adapter\n"));
}

TEST_F(BleSourceTest, AdapterThatIsPulledOutAndPutBackIsUsedAgain)
{
    StartBluezWithStrap();
    StartAndMeasure();
    ASSERT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");
    StderrCapture log;
    // BlueZ need not take the strap's objects away before the adapter's.
    mBluez->RemoveAdapter(kAdapter);
    ASSERT_TRUE(Settle());
    mBluez->RemoveStrap(mStrap);
    ASSERT_TRUE(Settle());

    mBluez->AddAdapter(kAdapter);
    mStrap = mBluez->AddStrap(kAdapter, kAddress);

    ASSERT_TRUE(StartsNotifying(2));
    EXPECT_EQ(ReadingOfValue({0x00, 62}), "heart_rate=62");
    EXPECT_THAT(log.Take(), HasSubstr("W platform: ble: no Bluetooth adapter\n"));
}

TEST_F(BleSourceTest, RefusedNotificationsAreAskedForAgainAfterAPause)
{
    StderrCapture log;
    StartBluezWithStrap();
    mBluez->Connect(mStrap);
    mBluez->RefuseNotifications(mStrap, true);
    ASSERT_EQ(mSource->Start(ContextItem::HeartRate), 0);
    ASSERT_TRUE(HasTimer());
    mBluez->RefuseNotifications(mStrap, false);

    mTimer->Fire();

    ASSERT_TRUE(StartsNotifying(2));
    EXPECT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");
    EXPECT_EQ(CountIn(log.Take(), "refuses notifications: Not now\n"), 1);
}

TEST_F(BleSourceTest, CharacteristicThatVanishesIsTakenUpAgainWhenItReturns)
{
    StartBluezWithStrap();
    StartAndMeasure();
    ASSERT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");
    StderrCapture log;
    mBluez->RemoveMeasurement(mStrap);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(NextWakeMs(), -1);

    mBluez->AddMeasurement(mStrap);

    ASSERT_TRUE(StartsNotifying(2));
    EXPECT_EQ(ReadingOfValue({0x00, 62}), "heart_rate=62");
    EXPECT_EQ(log.Take(), "W platform: ble: strap C0:FF:EE:00:00:01 is lost\n"
                          "I platform: ble: strap C0:FF:EE:00:00:01 measures\n");
}

TEST_F(BleSourceTest, DeviceWithoutTheCharacteristicIsWaitedForWhileItIsConnected)
{
    StderrCapture log;
    StartBluezWithStrap();
    mBluez->Connect(mStrap);
    mBluez->RemoveMeasurement(mStrap);
    ASSERT_EQ(mSource->Start(ContextItem::HeartRate), 0);
    ASSERT_TRUE(Eventually([this] { return mBluez->Count("GetManagedObjects") == 1; }));
    ASSERT_TRUE(Settle());
    EXPECT_EQ(NextWakeMs(), -1);
    EXPECT_FALSE(mTimer->mDueUs);

    mBluez->AddMeasurement(mStrap);

    ASSERT_TRUE(StartsNotifying());
    EXPECT_EQ(ReadingOfValue({0x00, 62}), "heart_rate=62");
    EXPECT_EQ(CountIn(log.Take(), "has no heart-rate measurement\n"), 1);
}

TEST_F(BleSourceTest, NotificationsThatEndAreAskedForAgain)
{
    StartBluezWithStrap();
    StartAndMeasure();
    ASSERT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");

    mBluez->EndNotifications(mStrap);

    ASSERT_TRUE(StartsNotifying(2));
    EXPECT_EQ(ReadingOfValue({0x00, 62}), "heart_rate=62");
}

TEST_F(BleSourceTest, BluezThatIsNotRunningIsWaitedFor)
{
    StderrCapture log;
    ASSERT_EQ(mSource->Start(ContextItem::HeartRate), 0);
    RunWhileBusy();

    StartBluezWithStrap();

    ASSERT_TRUE(StartsNotifying());
    EXPECT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");
    EXPECT_EQ(CountIn(log.Take(), "W platform: ble: BlueZ is not running\n"), 1);
}

TEST_F(BleSourceTest, BluezThatIsRestartedIsAskedAnew)
{
    StartBluezWithStrap();
    StartAndMeasure();
    ASSERT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");
    StderrCapture log;
    mBluez->Kill();
    ASSERT_TRUE(Eventually([this] { return Latest() == "none"; }));
    RunWhileBusy();
    EXPECT_FALSE(mTimer->mDueUs);
    EXPECT_EQ(NextWakeMs(), -1);

    mBluez->Start();
    mBluez->AddAdapter(kAdapter);
    mStrap = mBluez->AddStrap(kAdapter, kAddress);

    ASSERT_TRUE(StartsNotifying());
    EXPECT_EQ(ReadingOfValue({0x00, 62}), "heart_rate=62");
    const std::string lines = log.Take();
    EXPECT_EQ(CountIn(lines, "W platform: ble: BlueZ is not running\n"), 1);
    EXPECT_EQ(CountIn(lines, "is lost"), 0);
}

TEST_F(BleSourceTest, BluezThatDiesWhileItConnectsIsWaitedFor)
{
    StartBluezWithStrap();
    mBluez->LetConnectingHang(mStrap);
    ASSERT_EQ(mSource->Start(ContextItem::HeartRate), 0);
    ASSERT_TRUE(Eventually([this] { return mBluez->Count("Connect") == 1; }));
    StderrCapture log;

    mBluez->Kill();

    ASSERT_TRUE(Eventually([this] { return !mBus->HasOwner("org.bluez"); }));
    ASSERT_TRUE(RoundTrip("org.freedesktop.DBus"));
    EXPECT_FALSE(mTimer->mDueUs);
    EXPECT_EQ(log.Take(), "W platform: ble: BlueZ is not running\n");
}

TEST_F(BleSourceTest, BusThatIsRestartedIsConnectedAgain)
{
    StartBluezWithStrap();
    StartAndMeasure();
    ASSERT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");
    StderrCapture log;
    mBluez->Kill();
    mBus->Stop();
    ASSERT_TRUE(HasTimer());
    EXPECT_EQ(Latest(), "none");
    mTimer->Fire();
    ASSERT_TRUE(HasTimer());
    mBus->Start();
    mBluez->Start();
    mBluez->AddAdapter(kAdapter);
    mStrap = mBluez->AddStrap(kAdapter, kAddress);

    mTimer->Fire();

    ASSERT_TRUE(StartsNotifying());
    EXPECT_EQ(ReadingOfValue({0x00, 62}), "heart_rate=62");
    const std::string lines = log.Take();
    EXPECT_EQ(CountIn(lines, "W platform: ble: the system bus is lost\n"), 1);
    EXPECT_EQ(CountIn(lines, "W platform: system bus: "), 1);
    EXPECT_EQ(CountIn(lines, "I platform: system bus: connected again\n"), 1);
}

TEST_F(BleSourceTest, MachineWithoutABusIsNoFailure)
{
    EXPECT_EQ(mSource->Problem(), "");
    mBus->Stop();
    StderrCapture log;
    EXPECT_TRUE(
        Eventually([this] { return mSource->Problem() == "source ble has no system bus"; }));

    EXPECT_EQ(mSource->Start(ContextItem::HeartRate), 0);

    EXPECT_TRUE(mTimer->mDueUs);
    mTimer->Fire();
    EXPECT_TRUE(mTimer->mDueUs);
    EXPECT_EQ(CountIn(log.Take(), "system bus: "), 1);
    mSource->Stop(ContextItem::HeartRate);
    EXPECT_FALSE(mTimer->mDueUs);
}

TEST_F(BleSourceTest, LatestIsTheNewestMeasurementForTenSeconds)
{
    StartBluezWithStrap();
    EXPECT_EQ(Latest(), "none");
    StartAndMeasure();
    EXPECT_EQ(Latest(), "none");
    ASSERT_EQ(ReadingOfValue({0x00, 61}), "heart_rate=61");
    ASSERT_EQ(ReadingOfValue({0x00, 62}), "heart_rate=62");
    mSource->Stop(ContextItem::HeartRate);

    mClock.mMonotonicUs += 10'000'000;
    EXPECT_EQ(Latest(), "heart_rate=62");
    mClock.mMonotonicUs += 1;
    EXPECT_EQ(Latest(), "none");
}

} // namespace ParvanePlatform
