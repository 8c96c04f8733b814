#include "LogindBackend.h"

#include <chrono>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "BusTest.h"

namespace ParvanePlatform {

/** Inhibitors of a mocked logind. */
class LogindBackendTest : public BusTest
{
protected:
    std::string Inhibitors() const
    {
        return mBus->Call("org.freedesktop.login1", "/org/freedesktop/login1",
                          "org.freedesktop.login1.Manager", "ListInhibitors");
    }

    std::shared_ptr<SystemBus> mSystemBus = std::make_shared<SystemBus>();
    LogindBackend mBackend{mSystemBus};
};

constexpr char kNone[] = "([],)";
constexpr char kOne[] = "([('sleep:idle', 'Parvane', 'A measurement is running', 'block', "
                        "1000, 123456)],)";

TEST_F(LogindBackendTest, HoldIsAnInhibitorUntilItEnds)
{
    const auto logind = mBus->Run("logind");
    auto hold = mBackend.Hold(16000);
    ASSERT_NE(hold, nullptr);
    EXPECT_EQ(Inhibitors(), kOne);

    hold.reset();
    EXPECT_TRUE(Eventually([this] { return Inhibitors() == kNone; }));
}

TEST_F(LogindBackendTest, HoldsOverlap)
{
    const auto logind = mBus->Run("logind");
    auto first = mBackend.Hold(16000);
    const auto second = mBackend.Hold(16000);
    ASSERT_NE(second, nullptr);
    first.reset();
    EXPECT_TRUE(Eventually([this] { return Inhibitors() == kOne; }));
}

TEST_F(LogindBackendTest, LogindThatGoesAndReturnsIsOneLineEach)
{
    auto logind = mBus->Run("logind");
    EXPECT_NE(mBackend.Hold(1000), nullptr);
    logind.reset();
    StderrCapture capture;
    EXPECT_EQ(mBackend.Hold(1000), nullptr);
    EXPECT_EQ(mBackend.Hold(1000), nullptr);
    logind = mBus->Run("logind");
    EXPECT_NE(mBackend.Hold(1000), nullptr);
    const std::string log = capture.Take();
    EXPECT_EQ(log.rfind("W platform: power: no inhibitor from logind: ", 0), 0U) << log;
    EXPECT_EQ(log.substr(log.find('\n')), "\nI platform: power: logind inhibits again\n");
}

TEST_F(LogindBackendTest, BusThatGoesAndReturnsIsTakenUpAgain)
{
    auto logind = mBus->Run("logind");
    const auto hold = mBackend.Hold(1000);
    ASSERT_NE(hold, nullptr);
    const StderrCapture quiet;
    mBus->Stop();
    logind.reset();
    EXPECT_TRUE(Eventually([this] { return mBackend.Hold(1000) == nullptr; }));

    mBus->Start();
    logind = mBus->Run("logind");
    EXPECT_TRUE(Eventually([this] { return mBackend.Hold(1000) != nullptr; }));
}

TEST_F(LogindBackendTest, LogindThatDoesNotAnswerHoldsNobodyUp)
{
    const auto logind = mBus->Run("logind");
    logind->Pause();
    const StderrCapture quiet;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(mBackend.Hold(1000), nullptr);
    // Half a second is what it may take; ten seconds leave a loaded machine its time.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    logind->Resume();
    // What came too late is released.
    EXPECT_TRUE(Eventually([this] { return Inhibitors() == kNone; }));
}

TEST_F(LogindBackendTest, NoBusIsNoHold)
{
    mBus->Stop();
    StderrCapture capture;
    EXPECT_EQ(mBackend.Hold(1000), nullptr);
    EXPECT_NE(capture.Take().find("W platform: power: no inhibitor from logind: no system bus\n"),
              std::string::npos);
}

TEST_F(LogindBackendTest, AnotherReasonIsALineOfItsOwn)
{
    mBus->Stop();
    StderrCapture capture;
    EXPECT_EQ(mBackend.Hold(1000), nullptr);
    mBus->Start();
    EXPECT_TRUE(Eventually([this] {
        EXPECT_EQ(mBackend.Hold(1000), nullptr);
        return mSystemBus->Connection() != nullptr;
    }));
    EXPECT_EQ(mBackend.Hold(1000), nullptr);
    const std::string log = capture.Take();
    const std::string line = "W platform: power: no inhibitor from logind: ";
    const std::size_t first = log.find(line + "no system bus\n");
    ASSERT_NE(first, std::string::npos) << log;
    const std::size_t second = log.find(line, first + 1);
    ASSERT_NE(second, std::string::npos) << log;
    EXPECT_NE(log.substr(second + line.size(), 13), "no system bus") << log;
}

} // namespace ParvanePlatform
