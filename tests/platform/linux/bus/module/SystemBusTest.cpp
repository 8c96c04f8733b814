#include "SystemBus.h"

#include <chrono>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "BusTest.h"

namespace ParvanePlatform {

namespace {

using testing::StartsWith;

} // namespace

class SystemBusTest : public BusTest
{
protected:
    static void OnClosed(GDBusConnection * /*connection*/, gboolean /*byPeer*/, GError * /*error*/,
                         gpointer user_data) noexcept
    {
        *static_cast<bool *>(user_data) = true;
    }

    SystemBus mSystemBus;
};

TEST_F(SystemBusTest, ConnectionIsMadeOnceAndKept)
{
    GDBusConnection *connection = mSystemBus.Connection();

    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(mSystemBus.Connection(), connection);
}

TEST_F(SystemBusTest, MissingBusIsToldOnce)
{
    mBus->Stop();
    StderrCapture log;

    EXPECT_EQ(mSystemBus.Connection(), nullptr);
    EXPECT_EQ(mSystemBus.Connection(), nullptr);

    const std::string lines = log.Take();
    EXPECT_THAT(lines, StartsWith("W platform: system bus: "));
    EXPECT_EQ(lines.find('\n'), lines.size() - 1);
}

TEST_F(SystemBusTest, BusThatNeverAnswersIsMissing)
{
    mBus->Stop();
    const SilentBus silent(mBus->Folder() + "/bus");
    StderrCapture log;

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(mSystemBus.Connection(), nullptr);

    // Half a second is what it may take; ten seconds leave a loaded machine its time.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(log.Take(), "W platform: system bus: it does not answer\n");
}

TEST_F(SystemBusTest, BusThatDoesNotAnswerAnyMoreHoldsNoEndUp)
{
    auto systemBus = std::make_unique<SystemBus>();
    ASSERT_NE(systemBus->Connection(), nullptr);
    mBus->Pause();

    const auto start = std::chrono::steady_clock::now();
    systemBus.reset();

    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    mBus->Resume();
}

TEST_F(SystemBusTest, LossOfAConnectionIsToldOnTheMainLoop)
{
    GDBusConnection *connection = mSystemBus.Connection();
    ASSERT_NE(connection, nullptr);
    bool isTold = false;
    g_signal_connect(connection, "closed", G_CALLBACK(OnClosed), &isTold);

    mBus->Stop();

    EXPECT_TRUE(RunUntil([&] { return isTold; }));
}

TEST_F(SystemBusTest, LostConnectionIsMadeAnew)
{
    StderrCapture log;
    GDBusConnection *connection = mSystemBus.Connection();
    ASSERT_NE(connection, nullptr);
    mBus->Stop();
    ASSERT_TRUE(RunUntil([&] { return mSystemBus.Connection() == nullptr; }));

    mBus->Start();

    EXPECT_NE(mSystemBus.Connection(), nullptr);
    EXPECT_EQ(log.Take(), "W platform: system bus: the connection is lost\n"
                          "I platform: system bus: connected again\n");
}

} // namespace ParvanePlatform
