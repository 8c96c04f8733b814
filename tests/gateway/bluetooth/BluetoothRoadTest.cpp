#include "BluetoothRoad.h"

#include <memory>
#include <nlohmann/json.hpp>
#include <numeric>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FakeBluez.h"
#include "FakeWatch.h"
#include "PhoneSeat.h"
#include "PrivateSystemBus.h"
#include "TestLoop.h"

namespace ParvaneGateway {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kDevice[] = "org.bluez.Device1";
constexpr char kAdapter[] = "org.bluez.Adapter1";
constexpr char kPhoneAddress[] = "C0:FF:EE:00:00:01";
constexpr char kOtherAddress[] = "C0:FF:EE:00:00:02";

const Bytes kStop = {0x14, 0x00, 0x00, 0x01};
const Bytes kStopped = {0x14, 0x02, 0x00, 0x01};
const Bytes kList = {0x01, 0x00, 0x00, 0x00};
/** As long as an entry of the sensor list. */
const Bytes kEntry(25, 0xA5);

std::string Print(GVariant *value)
{
    char *text = g_variant_print(value, FALSE);
    std::string result = text;
    g_free(text);
    return result;
}

std::optional<Bytes> ReceiveFrom(const Parvane::UniqueFd &fd)
{
    Bytes packet(1024);
    const ssize_t size = recv(fd.Get(), packet.data(), packet.size(), MSG_DONTWAIT);
    if (size < 0) {
        return std::nullopt;
    }
    packet.resize(static_cast<std::size_t>(size));
    return packet;
}

bool SendTo(const Parvane::UniqueFd &fd, const Bytes &packet)
{
    return send(fd.Get(), packet.data(), packet.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(packet.size());
}

bool IsHungUp(const Parvane::UniqueFd &fd)
{
    pollfd state = {fd.Get(), 0, 0};
    return poll(&state, 1, 0) > 0 && (state.revents & POLLHUP) != 0;
}

/** A phone of another road. */
class OtherPhone : public Phone
{
public:
    bool Deliver(PacketBytes /*packet*/) override { return true; }
    void GoOn() override {}
    void Close(PhoneEnd /*why*/) override {}
    [[nodiscard]] PhoneIdentity Identity() const override { return {"websocket", "other"}; }
};

} // namespace

class BluetoothRoadTest : public testing::Test
{
protected:
    void SetUp() override
    {
        if (const std::string reason = PrivateSystemBus::WhyNot(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
        mBus.emplace();
        mTimes.mFirstPause = std::chrono::milliseconds(1);
        mTimes.mBondingTime = std::chrono::milliseconds(100);
        testing::internal::CaptureStderr();
    }

    void TearDown() override
    {
        mRoad.reset();
        mBluez.reset();
        RunDue();
        if (mBus) {
            TakeLog();
            testing::internal::GetCapturedStderr();
        }
    }

    /** What was logged since it was taken last. */
    std::string TakeLog()
    {
        const std::string log = testing::internal::GetCapturedStderr();
        testing::internal::CaptureStderr();
        return log;
    }

    void Open()
    {
        mRoad = std::make_unique<BluetoothRoad>(mSettings, mSeat, mTimes);
        mRoad->Open();
    }

    void StartBluez() { mBluez = std::make_unique<FakeBluez>(mBus->Address()); }

    [[nodiscard]] bool IsAdvertised() const
    {
        return RunUntil([this] {
            return mBluez->HasAdvertisement() && mRoad->State().starts_with("advertised on ");
        });
    }

    /** Everything there, and nobody connected. */
    void OpenWithBluez()
    {
        StartBluez();
        mBluez->AddAdapter("hci0");
        Open();
        ASSERT_TRUE(IsAdvertised());
    }

    static FakeBluez::OutcomePtr Done(FakeBluez::OutcomePtr outcome)
    {
        EXPECT_TRUE(RunUntil([&] { return outcome->mIsDone; }));
        return outcome;
    }

    /** A bonded phone that has subscribed and may write, by descriptors. */
    void SeatPhone(std::uint16_t mtu = 517)
    {
        mPhone = mBluez->AddDevice("hci0", kPhoneAddress, true);
        mNotify = std::move(Done(mBluez->AcquireNotify(mPhone, mtu))->mFd);
        mWrite = std::move(Done(mBluez->AcquireWrite(mPhone, mtu))->mFd);
        ASSERT_TRUE(mNotify);
        ASSERT_TRUE(mWrite);
        ASSERT_TRUE(mWatch.Accept());
        ASSERT_TRUE(RunUntil([this] { return !mBluez->HasAdvertisement(); }));
    }

    bool WatchReceives(const Bytes &expected)
    {
        std::optional<Bytes> packet;
        const bool hasCome = RunUntil([&] {
            packet = mWatch.Receive();
            return packet.has_value();
        });
        return hasCome && packet == expected;
    }

    bool PhoneReceives(const Bytes &expected)
    {
        std::optional<Bytes> packet;
        const bool hasCome = RunUntil([&] {
            packet = ReceiveFrom(mNotify);
            return packet.has_value();
        });
        return hasCome && packet == expected;
    }

    bool WatchLosesPhone()
    {
        return RunUntil([this] { return mWatch.HasEnded(); });
    }

    [[nodiscard]] bool IsDisconnected(const std::string &device) const
    {
        return RunUntil([&] {
            return g_variant_get_boolean(mBluez->Get(device, kDevice, "Connected")) == FALSE;
        });
    }

    void ExpectRefused(const FakeBluez::OutcomePtr &outcome, const char *code)
    {
        EXPECT_EQ(outcome->mError, "org.bluez.Error.Failed");
        EXPECT_EQ(outcome->mMessage, code);
    }

    TestFolder mFolder;
    std::optional<PrivateSystemBus> mBus;
    FakeWatch mWatch{mFolder.Path("link.sock")};
    PhoneSeat mSeat{mFolder.Path("link.sock")};
    BluetoothSettings mSettings;
    BluetoothTimes mTimes;
    std::unique_ptr<FakeBluez> mBluez;
    std::unique_ptr<BluetoothRoad> mRoad;
    std::string mPhone;
    Parvane::UniqueFd mNotify;
    Parvane::UniqueFd mWrite;
};

TEST_F(BluetoothRoadTest, ServiceAndAdvertisementAreAsDocumented)
{
    OpenWithBluez();

    EXPECT_EQ(Print(mBluez->Application()),
              "{'/parvane/service': {'org.bluez.GattService1': "
              "{'UUID': <'6a1c0001-5b0e-4f0c-9d5a-7f1d2c8e43b7'>, 'Primary': <true>}}, "
              "'/parvane/service/to_watch': {'org.bluez.GattCharacteristic1': "
              "{'UUID': <'6a1c0002-5b0e-4f0c-9d5a-7f1d2c8e43b7'>, 'Service': <objectpath "
              "'/parvane/service'>, "
              "'Flags': <['write', 'write-without-response', 'encrypt-write']>, 'WriteAcquired': "
              "<false>}}, "
              "'/parvane/service/from_watch': {'org.bluez.GattCharacteristic1': "
              "{'UUID': <'6a1c0003-5b0e-4f0c-9d5a-7f1d2c8e43b7'>, 'Service': <objectpath "
              "'/parvane/service'>, "
              "'Flags': <['encrypt-notify']>, 'NotifyAcquired': <false>}}}");
    EXPECT_EQ(Print(mBluez->Advertisement()),
              "{'Type': <'peripheral'>, "
              "'ServiceUUIDs': <['6a1c0001-5b0e-4f0c-9d5a-7f1d2c8e43b7']>, "
              "'LocalName': <'A watch'>, 'Discoverable': <true>}");
    EXPECT_EQ(mRoad->State(), "advertised on hci0");
}

TEST_F(BluetoothRoadTest, ConfigurationNamesTheWatchAndAsksForAuthentication)
{
    mSettings.mName = "Left wrist";
    mSettings.mIsAuthenticated = true;
    OpenWithBluez();

    const std::string application = Print(mBluez->Application());
    EXPECT_THAT(application, HasSubstr("'write-without-response', 'encrypt-authenticated-write']"));
    EXPECT_THAT(application, HasSubstr("['encrypt-authenticated-notify']"));
    EXPECT_THAT(Print(mBluez->Advertisement()), HasSubstr("'LocalName': <'Left wrist'>"));
}

TEST_F(BluetoothRoadTest, PacketsPassByteForByteBothWays)
{
    OpenWithBluez();
    SeatPhone();

    ASSERT_TRUE(SendTo(mWrite, kStop));
    ASSERT_TRUE(SendTo(mWrite, kList));
    EXPECT_TRUE(WatchReceives(kStop));
    EXPECT_TRUE(WatchReceives(kList));
    ASSERT_TRUE(mWatch.Send(kStopped));
    ASSERT_TRUE(mWatch.Send(kEntry));
    EXPECT_TRUE(PhoneReceives(kStopped));
    EXPECT_TRUE(PhoneReceives(kEntry));
    EXPECT_EQ(mSeat.GetStatus().mPhone->mName, kPhoneAddress);
    EXPECT_EQ(mSeat.GetStatus().mPhone->mRoad, "bluetooth");
}

TEST_F(BluetoothRoadTest, LongestValueIsOnePacket)
{
    OpenWithBluez();
    SeatPhone();
    Bytes longest(512);
    std::iota(longest.begin(), longest.end(), std::uint8_t{0});

    ASSERT_TRUE(SendTo(mWrite, longest));
    EXPECT_TRUE(WatchReceives(longest));
    ASSERT_TRUE(mWatch.Send(longest));
    EXPECT_TRUE(PhoneReceives(longest));
    // Beyond the MTU nothing can be sent whole, and what comes after it is not held up.
    ASSERT_TRUE(mWatch.Send(Bytes(515, 1)));
    ASSERT_TRUE(mWatch.Send(kEntry));
    EXPECT_TRUE(PhoneReceives(kEntry));
    EXPECT_THAT(TakeLog(), HasSubstr("a packet of 515 bytes is dropped"));
}

TEST_F(BluetoothRoadTest, EmptyValueIsNoPacket)
{
    OpenWithBluez();
    SeatPhone();

    EXPECT_EQ(send(mWrite.Get(), "", 0, 0), 0);
    ASSERT_TRUE(SendTo(mWrite, kStop));
    EXPECT_TRUE(WatchReceives(kStop));
}

TEST_F(BluetoothRoadTest, AdvertisementRestsWhileAPhoneIsConnected)
{
    OpenWithBluez();
    SeatPhone();
    EXPECT_EQ(mRoad->State(), "rests while a phone is connected");

    mBluez->SetConnected(mPhone, false);
    EXPECT_TRUE(WatchLosesPhone());
    EXPECT_TRUE(IsAdvertised());
}

TEST_F(BluetoothRoadTest, AdvertisementRestsWhileAnotherRoadHasAPhone)
{
    OpenWithBluez();
    OtherPhone other;
    ASSERT_EQ(mSeat.Sit(other), PhoneSeat::Answer::Seated);
    EXPECT_TRUE(RunUntil([this] { return !mBluez->HasAdvertisement(); }));

    mPhone = mBluez->AddDevice("hci0", kPhoneAddress, true);
    ExpectRefused(Done(mBluez->AcquireNotify(mPhone, 517)), "0x81");
    EXPECT_TRUE(IsDisconnected(mPhone));
    mSeat.Left(other);
    EXPECT_TRUE(IsAdvertised());
}

TEST_F(BluetoothRoadTest, WhatWasWrittenLastReachesTheWatch)
{
    OpenWithBluez();
    SeatPhone();

    ASSERT_TRUE(SendTo(mWrite, kStop));
    ASSERT_TRUE(SendTo(mWrite, kList));
    mNotify.Reset();
    mWrite.Reset();
    EXPECT_TRUE(WatchReceives(kStop));
    EXPECT_TRUE(WatchReceives(kList));
    EXPECT_TRUE(WatchLosesPhone());
    EXPECT_TRUE(IsAdvertised());
}

TEST_F(BluetoothRoadTest, UnsubscribingEndsTheVisitAndSubscribingBeginsTheNext)
{
    OpenWithBluez();
    SeatPhone();

    mNotify.Reset();
    EXPECT_TRUE(WatchLosesPhone());
    ASSERT_TRUE(IsAdvertised());
    mNotify = std::move(Done(mBluez->AcquireNotify(mPhone, 517))->mFd);
    ASSERT_TRUE(mWatch.Accept());
    ASSERT_TRUE(mWatch.Send(kEntry));
    EXPECT_TRUE(PhoneReceives(kEntry));
}

TEST_F(BluetoothRoadTest, BondedPhoneThatReturnsNeedNotSubscribeAgain)
{
    OpenWithBluez();
    SeatPhone();
    mBluez->SetConnected(mPhone, false);
    ASSERT_TRUE(WatchLosesPhone());

    // BlueZ has kept its subscription, and asks for no descriptor to notify.
    mBluez->SetConnected(mPhone, true);
    mWrite = std::move(Done(mBluez->AcquireWrite(mPhone, 517))->mFd);
    ASSERT_TRUE(mWatch.Accept());
    ASSERT_TRUE(SendTo(mWrite, kStop));
    EXPECT_TRUE(WatchReceives(kStop));
    ASSERT_TRUE(mWatch.Send(kStopped));
    EXPECT_TRUE(RunUntil([this] { return !mBluez->Notified().empty(); }));
    EXPECT_THAT(mBluez->Notified(), ElementsAre(kStopped));
}

TEST_F(BluetoothRoadTest, CallsAndSignalsServeWhereDescriptorsWouldBeShared)
{
    OpenWithBluez();
    mBluez->AddDevice("hci0", kOtherAddress, true); // a headset, say
    mPhone = mBluez->AddDevice("hci0", kPhoneAddress, true);

    // An error that makes BlueZ go the other way.
    EXPECT_EQ(Done(mBluez->AcquireNotify(mPhone, 517))->mError,
              "org.freedesktop.DBus.Error.NotSupported");
    EXPECT_EQ(Done(mBluez->StartNotify())->mError, "");
    EXPECT_EQ(Done(mBluez->AcquireWrite(mPhone, 517))->mError,
              "org.freedesktop.DBus.Error.NotSupported");
    ASSERT_TRUE(mWatch.Accept());
    EXPECT_EQ(Done(mBluez->WriteValue(mPhone, kStop, 517))->mError, "");
    EXPECT_EQ(Done(mBluez->WriteValue(mPhone, kList, 517))->mError, "");
    EXPECT_TRUE(WatchReceives(kStop));
    EXPECT_TRUE(WatchReceives(kList));
    ASSERT_TRUE(mWatch.Send(kStopped));
    ASSERT_TRUE(mWatch.Send(kEntry));
    EXPECT_TRUE(RunUntil([this] { return mBluez->Notified().size() == 2; }));
    EXPECT_THAT(mBluez->Notified(), ElementsAre(kStopped, kEntry));
    EXPECT_EQ(Done(mBluez->StopNotify())->mError, "");
    EXPECT_TRUE(WatchLosesPhone());
}

TEST_F(BluetoothRoadTest, DescriptorsEndWhenAnotherDeviceComes)
{
    OpenWithBluez();
    SeatPhone();

    ASSERT_TRUE(SendTo(mWrite, kStop));
    mBluez->AddDevice("hci0", kOtherAddress, true);
    EXPECT_TRUE(WatchReceives(kStop));
    EXPECT_TRUE(RunUntil([this] { return IsHungUp(mWrite) && IsHungUp(mNotify); }));
    EXPECT_EQ(Done(mBluez->WriteValue(mPhone, kList, 517))->mError, "");
    EXPECT_TRUE(WatchReceives(kList));
    ASSERT_TRUE(mWatch.Send(kEntry));
    EXPECT_TRUE(RunUntil([this] { return !mBluez->Notified().empty(); }));
    EXPECT_FALSE(mWatch.HasEnded());
}

TEST_F(BluetoothRoadTest, SignalsWaitForABluezThatDoesNotRead)
{
    OpenWithBluez();
    SeatPhone();
    mBluez->AddDevice("hci0", kOtherAddress, true);
    ASSERT_TRUE(RunUntil([this] { return IsHungUp(mNotify); }));

    int sent = 0;
    for (; sent < 3000 && mWatch.Send(kEntry); ++sent) {
        RunDue();
    }
    EXPECT_TRUE(RunUntil([&] { return static_cast<int>(mBluez->Notified().size()) == sent; }));
}

TEST_F(BluetoothRoadTest, PartsOfValuesAreRefused)
{
    OpenWithBluez();
    mPhone = mBluez->AddDevice("hci0", kPhoneAddress, true);

    EXPECT_EQ(Done(mBluez->WriteValue(mPhone, kStop, 517, "'offset': <uint16 3>"))->mError,
              "org.bluez.Error.InvalidOffset");
    EXPECT_EQ(Done(mBluez->WriteValue(mPhone, kStop, 517, "'type': <'reliable'>"))->mError,
              "org.bluez.Error.NotSupported");
    EXPECT_EQ(Done(mBluez->WriteValue(mPhone, kStop, 517, "'prepare-authorize': <true>"))->mError,
              "org.bluez.Error.NotSupported");
    EXPECT_EQ(Done(mBluez->WriteValue(mPhone, {}, 517))->mError,
              "org.bluez.Error.InvalidValueLength");
    EXPECT_FALSE(mSeat.IsTaken());
}

TEST_F(BluetoothRoadTest, MtuOfALittleMoreThanAListEntryWillDo)
{
    OpenWithBluez();
    SeatPhone(28);

    ASSERT_TRUE(mWatch.Send(kEntry));
    EXPECT_TRUE(PhoneReceives(kEntry));
}

TEST_F(BluetoothRoadTest, SmallMtuIsRefusedWithALogLine)
{
    OpenWithBluez();
    for (const std::uint16_t mtu : {std::uint16_t{23}, std::uint16_t{27}}) {
        mPhone = mBluez->AddDevice("hci0", kPhoneAddress, true);
        TakeLog();
        ExpectRefused(Done(mBluez->AcquireNotify(mPhone, mtu)), "0x83");
        EXPECT_TRUE(IsDisconnected(mPhone));
        EXPECT_THAT(TakeLog(),
                    HasSubstr("Phone (C0:FF:EE:00:00:01) is refused: the MTU of its connection is "
                              "too small: an entry of the sensor list takes 28"));
    }
    EXPECT_FALSE(mSeat.IsTaken());
    EXPECT_TRUE(mBluez->HasAdvertisement());
}

TEST_F(BluetoothRoadTest, UnbondedPhoneIsRefused)
{
    OpenWithBluez();
    mPhone = mBluez->AddDevice("hci0", kPhoneAddress, false);

    const FakeBluez::OutcomePtr subscribed = mBluez->AcquireNotify(mPhone, 517);
    const FakeBluez::OutcomePtr written = mBluez->WriteValue(mPhone, kStop, 517);
    ExpectRefused(Done(subscribed), "0x84");
    ExpectRefused(Done(written), "0x84");
    EXPECT_TRUE(IsDisconnected(mPhone));
    EXPECT_FALSE(mWatch.Accept());
    EXPECT_THAT(TakeLog(), HasSubstr("it is not bonded with the watch"));
    EXPECT_EQ(mRoad->Status()["refusals"], nlohmann::json({{"not bonded", 1}}));
}

TEST_F(BluetoothRoadTest, PhoneMayBePairedWithoutABondAndIsRefused)
{
    OpenWithBluez();
    mPhone = mBluez->AddDevice("hci0", kPhoneAddress, false);
    mBluez->Set(mPhone, kDevice, "Paired", g_variant_new_boolean(TRUE));

    ExpectRefused(Done(mBluez->AcquireNotify(mPhone, 517)), "0x84");
    EXPECT_FALSE(mWatch.Accept());
}

TEST_F(BluetoothRoadTest, FirstWordsMayOvertakeTheNewsOfTheBond)
{
    mTimes.mBondingTime = std::chrono::seconds(60);
    OpenWithBluez();
    mPhone = mBluez->AddDevice("hci0", kPhoneAddress, false);

    const FakeBluez::OutcomePtr subscribed = mBluez->AcquireNotify(mPhone, 517);
    const FakeBluez::OutcomePtr first = mBluez->WriteValue(mPhone, kStop, 517);
    const FakeBluez::OutcomePtr second = mBluez->WriteValue(mPhone, kList, 517);
    mBluez->Set(mPhone, kDevice, "Bonded", g_variant_new_boolean(TRUE));
    EXPECT_TRUE(Done(subscribed)->mFd);
    EXPECT_EQ(Done(first)->mError, "");
    EXPECT_EQ(Done(second)->mError, "");
    ASSERT_TRUE(mWatch.Accept());
    EXPECT_TRUE(WatchReceives(kStop));
    EXPECT_TRUE(WatchReceives(kList));
}

TEST_F(BluetoothRoadTest, PhoneOfUnknownOriginIsRefused)
{
    OpenWithBluez();

    ExpectRefused(Done(mBluez->AcquireNotify("/org/bluez/hci0/dev_nobody", 517)), "0x84");
}

TEST_F(BluetoothRoadTest, NobodyButBluezIsServed)
{
    OpenWithBluez();
    mPhone = mBluez->AddDevice("hci0", kPhoneAddress, true);

    // Another program on the bus, which has found out where the objects are.
    const Parvane::ObjectPtr<GDBusConnection> stranger = Connect(mBus->Address());
    std::string answer;
    g_dbus_connection_call(
        stranger.get(), mBluez->Owner().c_str(), "/parvane/service/from_watch",
        "org.bluez.GattCharacteristic1", "AcquireNotify",
        g_variant_new_parsed("({'device': <%o>, 'mtu': <uint16 517>},)", mPhone.c_str()), nullptr,
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
        [](GObject *connection, GAsyncResult *result, gpointer place) {
            GError *error = nullptr;
            const Parvane::VariantPtr reply(
                g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, &error));
            const Parvane::ErrorPtr failure(error);
            *static_cast<std::string *>(place) = error != nullptr ? error->message : "served";
        },
        &answer);
    ASSERT_TRUE(RunUntil([&] { return !answer.empty(); }));
    EXPECT_THAT(answer, HasSubstr("AccessDenied"));
    EXPECT_FALSE(mSeat.IsTaken());
}

TEST_F(BluetoothRoadTest, SecondPhoneIsRefusedAndHearsNothing)
{
    OpenWithBluez();
    SeatPhone();
    mBluez->Delay("Disconnect");
    const std::string second = mBluez->AddDevice("hci0", kOtherAddress, true);
    ExpectRefused(Done(mBluez->AcquireNotify(second, 517)), "0x81");
    ASSERT_TRUE(RunUntil([this] { return mBluez->Count("Disconnect") == 1; }));

    // BlueZ would notify both.
    ASSERT_TRUE(mWatch.Send(kEntry));
    RunDue();
    EXPECT_THAT(mBluez->Notified(), IsEmpty());
    ExpectRefused(Done(mBluez->WriteValue(second, kList, 517)), "0x81");
    mBluez->Answer("Disconnect");
    mBluez->SetConnected(second, false);
    EXPECT_TRUE(RunUntil([this] { return !mBluez->Notified().empty(); }));
    EXPECT_THAT(mBluez->Notified(), ElementsAre(kEntry));
    EXPECT_EQ(Done(mBluez->WriteValue(mPhone, kStop, 517))->mError, "");
    EXPECT_TRUE(WatchReceives(kStop));
    EXPECT_EQ(mWatch.Receive(), std::nullopt);
    EXPECT_EQ(mBluez->Count("Disconnect"), 1);
    EXPECT_EQ(mRoad->Status()["refusals"], nlohmann::json({{"a second phone over Bluetooth", 1}}));
}

TEST_F(BluetoothRoadTest, EarlierPhoneThatComesBackMeanwhileIsDisconnected)
{
    OpenWithBluez();
    SeatPhone();
    const std::string first = mPhone;
    mBluez->SetConnected(first, false);
    ASSERT_TRUE(WatchLosesPhone());
    mPhone = mBluez->AddDevice("hci0", kOtherAddress, true);
    mNotify = std::move(Done(mBluez->AcquireNotify(mPhone, 517))->mFd);

    // It has not asked for anything, but BlueZ would notify it.
    mBluez->SetConnected(first, true);
    EXPECT_TRUE(RunUntil([this] { return mBluez->Count("Disconnect") == 1; }));
    EXPECT_TRUE(IsDisconnected(first));
    EXPECT_TRUE(mSeat.IsTaken());
}

TEST_F(BluetoothRoadTest, WordsOfAPhoneThatIsNotConnectedAnyMoreDoNoHarm)
{
    OpenWithBluez();
    mPhone = mBluez->AddDevice("hci0", kPhoneAddress, true);
    mBluez->SetConnected(mPhone, false);
    for (const FakeBluez::OutcomePtr &outcome :
         {Done(mBluez->WriteValue(mPhone, kList, 517)), Done(mBluez->AcquireWrite(mPhone, 517)),
          Done(mBluez->AcquireNotify(mPhone, 517))}) {
        EXPECT_EQ(outcome->mError, "org.bluez.Error.Failed");
    }
    EXPECT_FALSE(mSeat.IsTaken());

    mBluez->SetConnected(mPhone, true);
    EXPECT_TRUE(Done(mBluez->AcquireNotify(mPhone, 517))->mFd);
}

TEST_F(BluetoothRoadTest, NothingOfThePhoneBeforeReachesTheNext)
{
    OpenWithBluez();
    SeatPhone();
    ASSERT_TRUE(mWatch.Send(kEntry));
    mBluez->SetConnected(mPhone, false);
    ASSERT_TRUE(WatchLosesPhone());

    mPhone = mBluez->AddDevice("hci0", kOtherAddress, true);
    mNotify = std::move(Done(mBluez->AcquireNotify(mPhone, 517))->mFd);
    ASSERT_TRUE(mWatch.Accept());
    ASSERT_TRUE(mWatch.Send(kStopped));
    EXPECT_TRUE(PhoneReceives(kStopped));
    EXPECT_THAT(mBluez->Notified(), IsEmpty());
}

TEST_F(BluetoothRoadTest, PhoneThatDoesNotReadLosesNothing)
{
    OpenWithBluez();
    SeatPhone();

    int sent = 0;
    for (; sent < 100000; ++sent) {
        const auto number = static_cast<std::uint8_t>(sent);
        if (!mWatch.Send({number, static_cast<std::uint8_t>(sent >> 8)})) {
            RunDue();
            if (!mWatch.Send({number, static_cast<std::uint8_t>(sent >> 8)})) {
                break; // the watch sees its link full
            }
        }
    }
    EXPECT_GT(sent, 50);
    ASSERT_LT(sent, 100000);
    for (int i = 0; i < sent; ++i) {
        ASSERT_TRUE(
            PhoneReceives({static_cast<std::uint8_t>(i), static_cast<std::uint8_t>(i >> 8)}))
            << i;
    }
}

TEST_F(BluetoothRoadTest, WatchThatDoesNotReadIsWaitedFor)
{
    OpenWithBluez();
    SeatPhone();

    int sent = 0;
    while (sent < 100000 && SendTo(mWrite, {static_cast<std::uint8_t>(sent),
                                            static_cast<std::uint8_t>(sent >> 8)})) {
        ++sent;
        RunDue();
    }
    ASSERT_LT(sent, 100000); // now BlueZ tells the phone that its write has failed
    for (int i = 0; i < sent; ++i) {
        ASSERT_TRUE(
            WatchReceives({static_cast<std::uint8_t>(i), static_cast<std::uint8_t>(i >> 8)}))
            << i;
    }
    EXPECT_FALSE(mWatch.HasEnded());
}

TEST_F(BluetoothRoadTest, WatchServiceThatIsAwayIsToldAndAskedAgain)
{
    OpenWithBluez();
    SeatPhone();

    mWatch.Close();
    EXPECT_TRUE(IsDisconnected(mPhone));
    EXPECT_TRUE(RunUntil([this] { return IsHungUp(mWrite) && IsHungUp(mNotify); }));
    EXPECT_TRUE(IsAdvertised());
    EXPECT_THAT(TakeLog(), HasSubstr("is refused: the watch service has closed the link"));
    mBluez->SetConnected(mPhone, true);
    EXPECT_TRUE(Done(mBluez->AcquireNotify(mPhone, 517))->mFd);
    EXPECT_TRUE(mWatch.Accept());
}

TEST_F(BluetoothRoadTest, PhoneIsRefusedWithoutAWatchService)
{
    OpenWithBluez();
    unlink(mFolder.Path("link.sock").c_str());
    mPhone = mBluez->AddDevice("hci0", kPhoneAddress, true);

    ExpectRefused(Done(mBluez->AcquireWrite(mPhone, 517)), "0x82");
    EXPECT_TRUE(IsDisconnected(mPhone));
}

TEST_F(BluetoothRoadTest, StoppingDisconnectsThePhoneAndTakesAllBack)
{
    OpenWithBluez();
    SeatPhone();

    mSeat.Stop();
    mRoad->Shut();
    EXPECT_TRUE(mRoad->IsShut());
    EXPECT_TRUE(IsDisconnected(mPhone));
    EXPECT_TRUE(RunUntil([this] { return !mBluez->HasApplication(); }));
    EXPECT_FALSE(mBluez->HasAdvertisement());
    EXPECT_TRUE(WatchLosesPhone());
}

TEST_F(BluetoothRoadTest, AdvertisementIsTakenBackAtTheEnd)
{
    OpenWithBluez();

    mRoad->Shut();
    EXPECT_TRUE(RunUntil([this] { return !mBluez->HasApplication(); }));
    EXPECT_FALSE(mBluez->HasAdvertisement());
    EXPECT_EQ(mBluez->Count("UnregisterAdvertisement"), 1);
}

TEST_F(BluetoothRoadTest, BluezThatRestartsIsRegisteredWithAnew)
{
    OpenWithBluez();
    SeatPhone();

    mBluez.reset();
    EXPECT_TRUE(WatchLosesPhone());
    EXPECT_TRUE(RunUntil([this] { return mRoad->State() == "BlueZ is not running"; }));
    StartBluez();
    mBluez->AddAdapter("hci0");
    ASSERT_TRUE(IsAdvertised());
    SeatPhone();
    ASSERT_TRUE(mWatch.Send(kEntry));
    EXPECT_TRUE(PhoneReceives(kEntry));
}

TEST_F(BluetoothRoadTest, BluezMayDieInTheMiddleOfARegistration)
{
    StartBluez();
    mBluez->AddAdapter("hci0");
    mBluez->Delay("GetManagedObjects");
    Open();
    ASSERT_TRUE(RunUntil([this] { return mBluez->Count("GetManagedObjects") == 1; }));
    mBluez.reset();
    ASSERT_TRUE(RunUntil([this] { return mRoad->State() == "BlueZ is not running"; }));

    StartBluez();
    mBluez->AddAdapter("hci0");
    EXPECT_TRUE(IsAdvertised());
}

TEST_F(BluetoothRoadTest, AdapterMayGoAndComeBack)
{
    OpenWithBluez();
    SeatPhone();

    mBluez->RemoveAdapter("hci0");
    EXPECT_TRUE(WatchLosesPhone());
    EXPECT_TRUE(RunUntil([this] { return mRoad->State() == "there is no Bluetooth adapter"; }));
    mBluez->AddAdapter("hci0");
    EXPECT_TRUE(IsAdvertised());
    EXPECT_EQ(mBluez->Count("RegisterApplication"), 2);
}

TEST_F(BluetoothRoadTest, AdapterThatIsNamedIsWaitedFor)
{
    mSettings.mAdapter = "hci1";
    StartBluez();
    mBluez->AddAdapter("hci0");
    Open();

    EXPECT_TRUE(RunUntil([this] { return mRoad->State() == "there is no adapter hci1"; }));
    EXPECT_EQ(mBluez->Count("RegisterApplication"), 0);
    mBluez->AddAdapter("hci1");
    EXPECT_TRUE(IsAdvertised());
    EXPECT_TRUE(RunUntil([this] { return mRoad->State() == "advertised on hci1"; }));
}

TEST_F(BluetoothRoadTest, AdapterWithoutPowerIsWaitedFor)
{
    StartBluez();
    mBluez->AddAdapter("hci0", false);
    Open();

    EXPECT_TRUE(RunUntil([this] { return mRoad->State() == "hci0 is not powered"; }));
    EXPECT_EQ(mBluez->Count("RegisterAdvertisement"), 0);
    mBluez->Set(FakeBluez::AdapterPath("hci0"), kAdapter, "Powered", g_variant_new_boolean(TRUE));
    EXPECT_TRUE(IsAdvertised());
}

TEST_F(BluetoothRoadTest, AnotherAdapterServesWhileTheFirstHasNoPower)
{
    OpenWithBluez();

    mBluez->AddAdapter("hci1");
    mBluez->Set(FakeBluez::AdapterPath("hci0"), kAdapter, "Powered", g_variant_new_boolean(FALSE));
    EXPECT_TRUE(RunUntil([this] { return mRoad->State() == "advertised on hci1"; }));
}

TEST_F(BluetoothRoadTest, AdvertisementThatBluezEndsIsRegisteredAgain)
{
    OpenWithBluez();

    mBluez->ReleaseAdvertisement();
    EXPECT_TRUE(IsAdvertised());
    EXPECT_EQ(mBluez->Count("RegisterAdvertisement"), 2);
}

TEST_F(BluetoothRoadTest, PhoneThatComesWhileTheAdvertisementIsRegisteredEndsIt)
{
    StartBluez();
    mBluez->Delay("RegisterAdvertisement");
    mBluez->AddAdapter("hci0");
    Open();
    ASSERT_TRUE(RunUntil([this] { return mBluez->Count("RegisterAdvertisement") == 1; }));
    OtherPhone other;
    ASSERT_EQ(mSeat.Sit(other), PhoneSeat::Answer::Seated);

    mBluez->Answer("RegisterAdvertisement");
    EXPECT_TRUE(RunUntil([this] { return mBluez->Count("UnregisterAdvertisement") == 1; }));
    mSeat.Left(other);
}

TEST_F(BluetoothRoadTest, BusMayBeLostAndComeBack)
{
    OpenWithBluez();
    SeatPhone();

    mBus->Stop();
    EXPECT_TRUE(WatchLosesPhone());
    EXPECT_THAT(TakeLog(), HasSubstr("bluetooth: the system bus is lost"));
    mBluez.reset();
    mBus->Start();
    StartBluez();
    mBluez->AddAdapter("hci0");
    EXPECT_TRUE(IsAdvertised());
}

TEST_F(BluetoothRoadTest, WithoutABusTheRoadWaits)
{
    mBus->Stop();
    Open();

    EXPECT_TRUE(RunUntil([this] { return mRoad->State().starts_with("there is no system bus"); }));
    mBus->Start();
    EXPECT_TRUE(RunUntil([this] { return mRoad->State() == "BlueZ is not running"; }));
}

/** Each error that BlueZ documents for the method, and what GLib makes of no answer. */
class RefusedRegistrationTest
    : public BluetoothRoadTest,
      public testing::WithParamInterface<std::pair<const char *, const char *>>
{};

TEST_P(RefusedRegistrationTest, IsToldAndTriedAgainUntilItSucceeds)
{
    const auto [method, error] = GetParam();
    StartBluez();
    mBluez->AddAdapter("hci0");
    mBluez->Fail(method, error, 2);
    Open();

    EXPECT_TRUE(RunUntil([this] {
        return mRoad->State() == std::string("hci0 refuses ") + GetParam().first + ": not today";
    }));
    EXPECT_TRUE(IsAdvertised());
    EXPECT_EQ(mBluez->Count(method), 3);
    EXPECT_TRUE(RunUntil([this] { return mRoad->State() == "advertised on hci0"; }));
    EXPECT_TRUE(mBluez->HasApplication());
}

INSTANTIATE_TEST_SUITE_P(
    Errors, RefusedRegistrationTest,
    testing::Values(std::pair{"RegisterApplication", "org.bluez.Error.InvalidArguments"},
                    std::pair{"RegisterApplication", "org.bluez.Error.Failed"},
                    std::pair{"RegisterApplication", "org.freedesktop.DBus.Error.NoReply"},
                    std::pair{"RegisterApplication", "org.freedesktop.DBus.Error.AccessDenied"},
                    std::pair{"RegisterApplication", "org.bluez.Error.NotPermitted"},
                    std::pair{"RegisterApplication", "org.bluez.Error.InProgress"},
                    std::pair{"RegisterAdvertisement", "org.bluez.Error.InvalidArguments"},
                    std::pair{"RegisterAdvertisement", "org.bluez.Error.InvalidLength"},
                    std::pair{"RegisterAdvertisement", "org.bluez.Error.NotPermitted"},
                    std::pair{"RegisterAdvertisement", "org.bluez.Error.InProgress"},
                    std::pair{"RegisterAdvertisement", "org.bluez.Error.NotSupported"},
                    std::pair{"RegisterAdvertisement", "org.freedesktop.DBus.Error.NoReply"},
                    std::pair{"RegisterAdvertisement", "org.bluez.Error.Failed"}));

TEST_F(BluetoothRoadTest, WhatIsRegisteredAlreadyIsRegistered)
{
    StartBluez();
    mBluez->AddAdapter("hci0");
    mBluez->Fail("RegisterApplication", "org.bluez.Error.AlreadyExists", -1);
    mBluez->Fail("RegisterAdvertisement", "org.bluez.Error.AlreadyExists", -1);
    Open();

    EXPECT_TRUE(RunUntil([this] { return mRoad->State() == "advertised on hci0"; }));
}

TEST_F(BluetoothRoadTest, BluezThatTellsNoObjectsIsAskedAgain)
{
    StartBluez();
    mBluez->AddAdapter("hci0");
    mBluez->Fail("GetManagedObjects", "org.freedesktop.DBus.Error.NoReply", 2);
    Open();

    EXPECT_TRUE(RunUntil([this] { return mRoad->State() == "BlueZ tells no objects: not today"; }));
    EXPECT_TRUE(IsAdvertised());
}

TEST_F(BluetoothRoadTest, AdvertisementThatCannotBeTakenBackIsMadeAgain)
{
    OpenWithBluez();
    mBluez->Fail("UnregisterAdvertisement", "org.bluez.Error.DoesNotExist");
    mPhone = mBluez->AddDevice("hci0", kPhoneAddress, true);
    ASSERT_TRUE(Done(mBluez->AcquireNotify(mPhone, 517))->mFd);
    ASSERT_TRUE(RunUntil([this] { return mBluez->Count("UnregisterAdvertisement") == 1; }));
    mBluez->SetConnected(mPhone, false);

    EXPECT_TRUE(RunUntil([this] { return mBluez->Count("RegisterAdvertisement") == 2; }));
    EXPECT_TRUE(IsAdvertised());
}

TEST_F(BluetoothRoadTest, DisconnectThatFailsLeavesNobodyOut)
{
    OpenWithBluez();
    mBluez->Fail("Disconnect", "org.bluez.Error.NotConnected");
    mPhone = mBluez->AddDevice("hci0", kPhoneAddress, true);
    ExpectRefused(Done(mBluez->AcquireNotify(mPhone, 23)), "0x83");
    ASSERT_TRUE(RunUntil([this] { return mBluez->Count("Disconnect") == 1; }));

    RunDue();
    EXPECT_TRUE(RunUntil(
        [this] { return static_cast<bool>(Done(mBluez->AcquireNotify(mPhone, 517))->mFd); }));
}

} // namespace ParvaneGateway
