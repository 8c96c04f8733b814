#include "Admission.h"

#include <gtest/gtest.h>

#include "FakeWatch.h"
#include "TestLoop.h"

namespace ParvaneGateway {
namespace {

using namespace std::chrono_literals;

class AdmissionTest : public ::testing::Test
{
protected:
    TestFolder mFolder;
    TokenFile mFile{mFolder.Path("")};
    std::string mSecret = mFile.Add("phone", Scope::Phone, 0);
    TokenStore mTokens{mFolder.Path("")};
    Admission::Clock::time_point mNow;
    Admission mAdmission{mTokens, [this] { return mNow; }};
};

TEST_F(AdmissionTest, LetsTheBearerOfATokenIn)
{
    const auto judgement = mAdmission.Judge("a", mSecret, "");
    EXPECT_EQ(judgement.mStatus, 200);
    EXPECT_EQ(judgement.mToken->mName, "phone");
    EXPECT_EQ(mAdmission.Judge("a", "", "").mStatus, 401);
    EXPECT_EQ(mAdmission.Judge("a", mSecret + "x", "").mStatus, 401);
}

TEST_F(AdmissionTest, TenWrongTokensAMinuteMakeAnAddressWait)
{
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(mAdmission.Judge("a", "wrong", "").mStatus, 401);
    }
    EXPECT_EQ(mAdmission.Judge("a", mSecret, "").mStatus, 429);
    EXPECT_EQ(mAdmission.Judge("b", mSecret, "").mStatus, 200);

    mNow += 59s;
    EXPECT_EQ(mAdmission.Judge("a", mSecret, "").mStatus, 429);
    mNow += 1s;
    EXPECT_EQ(mAdmission.Judge("a", mSecret, "").mStatus, 200);
}

TEST_F(AdmissionTest, RemembersTheAddressesThatHaveTriedLast)
{
    for (int i = 0; i < 10; ++i) {
        mAdmission.Judge("last", "wrong", "");
    }
    for (std::size_t i = 0; i < Admission::kMostAddresses + 10; ++i) {
        mNow += 1ms;
        mAdmission.Judge(std::to_string(i), "wrong", "");
    }
    EXPECT_EQ(mAdmission.Judge("last", mSecret, "").mStatus, 200);
}

TEST_F(AdmissionTest, ASessionLastsAsLongAsItsToken)
{
    const std::string cookie = mAdmission.MakeSession(*mTokens.Find(mSecret));
    EXPECT_EQ(mAdmission.Judge("a", "", cookie).mStatus, 200);
    EXPECT_EQ(mAdmission.Judge("a", "", cookie + "x").mStatus, 401);

    ASSERT_TRUE(mFile.Remove("phone"));
    EXPECT_TRUE(RunUntil([&] { return mAdmission.Judge("a", "", cookie).mStatus == 401; }));
}

TEST_F(AdmissionTest, ASessionEndsByItself)
{
    const std::string cookie = mAdmission.MakeSession(*mTokens.Find(mSecret));
    mNow += Admission::kSessionTime;
    EXPECT_EQ(mAdmission.Judge("a", "", cookie).mStatus, 401);
}

TEST_F(AdmissionTest, TheOldestOfTooManySessionsGoes)
{
    const Token token = *mTokens.Find(mSecret);
    const std::string first = mAdmission.MakeSession(token);
    std::string last;
    for (std::size_t i = 0; i < Admission::kMostSessions; ++i) {
        last = mAdmission.MakeSession(token);
    }
    EXPECT_EQ(mAdmission.Judge("a", "", first).mStatus, 401);
    EXPECT_EQ(mAdmission.Judge("a", "", last).mStatus, 200);
}

} // namespace
} // namespace ParvaneGateway
