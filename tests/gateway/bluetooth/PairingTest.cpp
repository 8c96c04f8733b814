#include "Pairing.h"

#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FakeBluez.h"
#include "PrivateSystemBus.h"
#include "TestLoop.h"

namespace ParvaneGateway {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kAdapter[] = "org.bluez.Adapter1";
constexpr char kDevice[] = "org.bluez.Device1";
constexpr char kAddress[] = "C0:FF:EE:00:00:01";

} // namespace

class PairingTest : public testing::Test
{
protected:
    void SetUp() override
    {
        if (const std::string reason = PrivateSystemBus::WhyNot(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
        mBus.emplace();
        mConnection = Connect(mBus->Address());
        int ends[2] = {-1, -1};
        ASSERT_EQ(pipe(ends), 0);
        mInput.Reset(ends[0]);
        mKeyboard.Reset(ends[1]);
    }

    void TearDown() override
    {
        mPairing.reset();
        mBluez.reset();
        mConnection.reset();
        RunDue();
    }

    void Begin()
    {
        mPairing = std::make_unique<Pairing>(
            mConnection.get(), mSettings, mInput.Get(),
            [this](const std::string &line) { mSaid.push_back(line); },
            [this](bool isPaired) { mHasPaired = isPaired; });
    }

    void Offer()
    {
        mBluez.reset();
        mBluez = std::make_unique<FakeBluez>(mBus->Address());
        mBluez->AddAdapter("hci0");
        mPhone = mBluez->AddDevice("hci0", kAddress, false);
        Begin();
        ASSERT_TRUE(RunUntil([this] { return mBluez->IsDefaultAgent() && IsPairable(); }));
    }

    bool IsPairable()
    {
        return g_variant_get_boolean(
                   mBluez->Get(FakeBluez::AdapterPath("hci0"), kAdapter, "Pairable")) != FALSE;
    }

    guint32 PairableTimeout()
    {
        return g_variant_get_uint32(
            mBluez->Get(FakeBluez::AdapterPath("hci0"), kAdapter, "PairableTimeout"));
    }

    bool Says(const std::string &line)
    {
        return RunUntil([&] { return !mSaid.empty() && mSaid.back() == line; });
    }

    void Type(const std::string &text) const
    {
        ASSERT_EQ(write(mKeyboard.Get(), text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
    }

    static std::string ErrorOf(const FakeBluez::OutcomePtr &outcome)
    {
        EXPECT_TRUE(RunUntil([&] { return outcome->mIsDone; }));
        return outcome->mError;
    }

    FakeBluez::OutcomePtr AskForConfirmation()
    {
        return mBluez->CallAgent("RequestConfirmation",
                                 g_variant_new("(ou)", mPhone.c_str(), 4711U));
    }

    void Bond() { mBluez->Set(mPhone, kDevice, "Bonded", g_variant_new_boolean(TRUE)); }

    /** It ends, and all is as it was. */
    void ExpectEnd(bool isPaired)
    {
        EXPECT_TRUE(RunUntil([this] { return mHasPaired.has_value(); }));
        EXPECT_EQ(mHasPaired, isPaired);
        EXPECT_TRUE(RunUntil([this] { return mBluez->Agent().empty() && !IsPairable(); }));
        EXPECT_TRUE(RunUntil([this] { return PairableTimeout() == 0; }));
    }

    std::optional<PrivateSystemBus> mBus;
    Parvane::ObjectPtr<GDBusConnection> mConnection;
    std::unique_ptr<FakeBluez> mBluez;
    Parvane::UniqueFd mInput;
    Parvane::UniqueFd mKeyboard;
    PairingSettings mSettings;
    std::vector<std::string> mSaid;
    std::optional<bool> mHasPaired;
    std::string mPhone;
    std::unique_ptr<Pairing> mPairing;
};

TEST_F(PairingTest, PhoneWhoseNumberIsConfirmedIsPaired)
{
    Offer();
    EXPECT_EQ(mBluez->AgentCapability(), "DisplayYesNo");
    EXPECT_EQ(PairableTimeout(), 60U);
    const FakeBluez::OutcomePtr asked = AskForConfirmation();
    EXPECT_TRUE(Says("Does Phone (C0:FF:EE:00:00:01) show 004711? [yes/no]"));
    Type("yes\n");
    EXPECT_EQ(ErrorOf(asked), "");
    Bond();

    ExpectEnd(true);
    EXPECT_EQ(mSaid.back(), "Paired with Phone (C0:FF:EE:00:00:01).");
}

TEST_F(PairingTest, PhoneWhoseNumberIsAnotherIsRejectedAndMayTryAgain)
{
    Offer();
    const FakeBluez::OutcomePtr asked = AskForConfirmation();
    ASSERT_TRUE(Says("Does Phone (C0:FF:EE:00:00:01) show 004711? [yes/no]"));
    Type("no\n");
    EXPECT_EQ(ErrorOf(asked), "org.bluez.Error.Rejected");
    EXPECT_FALSE(mHasPaired.has_value());

    const FakeBluez::OutcomePtr again =
        mBluez->CallAgent("RequestAuthorization", g_variant_new("(o)", mPhone.c_str()));
    ASSERT_TRUE(Says("Pair with Phone (C0:FF:EE:00:00:01)? [yes/no]"));
    Type("y\n");
    EXPECT_EQ(ErrorOf(again), "");
    Bond();
    ExpectEnd(true);
}

TEST_F(PairingTest, NumberToTypeIntoThePhoneIsShownOnce)
{
    Offer();
    for (const guint16 entered : {guint16{0}, guint16{1}, guint16{2}}) {
        EXPECT_EQ(ErrorOf(mBluez->CallAgent(
                      "DisplayPasskey", g_variant_new("(ouq)", mPhone.c_str(), 123456U, entered))),
                  "");
    }
    EXPECT_THAT(mSaid, ElementsAre("A phone may pair for 60 s.",
                                   "Type 123456 into Phone (C0:FF:EE:00:00:01)."));
}

TEST_F(PairingTest, PhoneThatGivesUpIsAskedForNoMore)
{
    Offer();
    const FakeBluez::OutcomePtr asked = AskForConfirmation();
    ASSERT_TRUE(Says("Does Phone (C0:FF:EE:00:00:01) show 004711? [yes/no]"));
    EXPECT_EQ(ErrorOf(mBluez->CallAgent("Cancel", nullptr)), "");
    EXPECT_EQ(ErrorOf(asked), "org.bluez.Error.Rejected");
    Type("yes\n");
    EXPECT_TRUE(Says("The phone asks no more."));
}

TEST_F(PairingTest, OnlyOnePhoneIsAskedAboutAtATime)
{
    Offer();
    AskForConfirmation();
    EXPECT_EQ(ErrorOf(AskForConfirmation()), "org.bluez.Error.Rejected");
}

TEST_F(PairingTest, WhatIsNoPhonesPairingIsRejected)
{
    Offer();
    const char *phone = mPhone.c_str();
    EXPECT_EQ(ErrorOf(mBluez->CallAgent("RequestPinCode", g_variant_new("(o)", phone))),
              "org.bluez.Error.Rejected");
    EXPECT_EQ(ErrorOf(mBluez->CallAgent("RequestPasskey", g_variant_new("(o)", phone))),
              "org.bluez.Error.Rejected");
    EXPECT_EQ(ErrorOf(mBluez->CallAgent("AuthorizeService", g_variant_new("(os)", phone, "110b"))),
              "org.bluez.Error.Rejected");
    EXPECT_EQ(ErrorOf(mBluez->CallAgent("RequestAuthorization",
                                        g_variant_new("(o)", "/org/bluez/hci1/dev_1"))),
              "org.bluez.Error.Rejected");
}

TEST_F(PairingTest, WithoutAPersonNothingIsConfirmed)
{
    mKeyboard.Reset();
    Offer();
    RunDue();
    EXPECT_EQ(ErrorOf(AskForConfirmation()), "org.bluez.Error.Rejected");
}

TEST_F(PairingTest, WithoutAQuestionNoNumberIsCompared)
{
    mSettings.mIsWithoutQuestion = true;
    Offer();
    EXPECT_EQ(mBluez->AgentCapability(), "NoInputNoOutput");
    EXPECT_EQ(
        ErrorOf(mBluez->CallAgent("RequestAuthorization", g_variant_new("(o)", mPhone.c_str()))),
        "");
    Bond();
    ExpectEnd(true);
}

TEST_F(PairingTest, EndsWhenTheTimeIsOver)
{
    mSettings.mTime = std::chrono::seconds(1);
    Offer();
    const FakeBluez::OutcomePtr asked = AskForConfirmation();

    ExpectEnd(false);
    EXPECT_EQ(mSaid.back(), "Not paired: no phone has paired in that time.");
    EXPECT_EQ(ErrorOf(asked), "org.bluez.Error.Rejected");
}

TEST_F(PairingTest, InterruptedPutsAllBack)
{
    Offer();
    mPairing.reset();
    EXPECT_TRUE(RunUntil([this] { return mBluez->Agent().empty() && !IsPairable(); }));
    EXPECT_FALSE(mHasPaired.has_value());
}

TEST_F(PairingTest, AdapterThatIsPairableAnywayStaysSo)
{
    mBluez = std::make_unique<FakeBluez>(mBus->Address());
    mBluez->AddAdapter("hci0");
    mBluez->Set(FakeBluez::AdapterPath("hci0"), kAdapter, "Pairable", g_variant_new_boolean(TRUE));
    Begin();
    ASSERT_TRUE(RunUntil([this] { return mBluez->IsDefaultAgent(); }));
    mPairing.reset();
    ASSERT_TRUE(RunUntil([this] { return mBluez->Agent().empty(); }));
    EXPECT_TRUE(IsPairable());
    EXPECT_EQ(mBluez->Count("Set"), 0);
}

TEST_F(PairingTest, PhoneThatWasBondedBeforeIsNotTheOne)
{
    mBluez = std::make_unique<FakeBluez>(mBus->Address());
    mBluez->AddAdapter("hci0");
    const std::string old = mBluez->AddDevice("hci0", "C0:FF:EE:00:00:02", true);
    Begin();
    ASSERT_TRUE(RunUntil([this] { return mBluez->IsDefaultAgent() && IsPairable(); }));
    mBluez->SetConnected(old, false);
    mBluez->SetConnected(old, true);
    RunDue();
    EXPECT_FALSE(mHasPaired.has_value());
}

TEST_F(PairingTest, NoBluezNoAdapterAndARefusalAreTold)
{
    Begin();
    EXPECT_TRUE(RunUntil([this] { return mHasPaired == false; }));
    EXPECT_THAT(mSaid, testing::Not(IsEmpty()));

    mHasPaired.reset();
    mBluez = std::make_unique<FakeBluez>(mBus->Address());
    mBluez->AddAdapter("hci0", false);
    Begin();
    EXPECT_TRUE(Says("Not paired: there is no Bluetooth adapter with power."));

    mBluez->Set(FakeBluez::AdapterPath("hci0"), kAdapter, "Powered", g_variant_new_boolean(TRUE));
    for (const char *error : {"org.bluez.Error.AlreadyExists", "org.bluez.Error.InvalidArguments",
                              "org.freedesktop.DBus.Error.NoReply"}) {
        mSaid.clear();
        mBluez->Fail("RegisterAgent", error);
        Begin();
        EXPECT_TRUE(Says("Not paired: BlueZ takes no agent: not today.")) << error;
    }
    for (const char *error : {"org.bluez.Error.DoesNotExist", "org.bluez.Error.Failed",
                              "org.freedesktop.DBus.Error.AccessDenied"}) {
        mSaid.clear();
        mBluez->Fail("RequestDefaultAgent", error);
        Begin();
        EXPECT_TRUE(Says("Not paired: BlueZ takes no default agent: not today.")) << error;
    }
    mSaid.clear();
    mBluez->Fail("GetManagedObjects", "org.freedesktop.DBus.Error.NoReply");
    Begin();
    EXPECT_TRUE(Says("Not paired: not today."));
    EXPECT_TRUE(RunUntil([this] { return mBluez->Agent().empty() && !IsPairable(); }));
}

TEST_F(PairingTest, EndsWithBluezAndWithTheAdapter)
{
    Offer();
    mBluez->RemoveAdapter("hci0");
    EXPECT_TRUE(Says("Not paired: the adapter has gone."));

    Offer();
    EXPECT_EQ(ErrorOf(mBluez->CallAgent("Release", nullptr)), "");
    EXPECT_TRUE(Says("Not paired: BlueZ has let the agent go."));

    Offer();
    mBluez.reset();
    EXPECT_TRUE(Says("Not paired: BlueZ is not running."));
}

} // namespace ParvaneGateway
