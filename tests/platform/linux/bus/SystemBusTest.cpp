#include "bus/module/SystemBus.h"

#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "PrivateBus.h"
#include "TestSupport.h"

namespace ParvanePlatform {

namespace {

using testing::StartsWith;

} // namespace

class SystemBusTest : public testing::Test
{
protected:
    void SetUp() override
    {
        if (const std::string reason = PrivateBus::WhyNot(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
        mDaemon = std::make_unique<PrivateBus>();
    }

    std::unique_ptr<PrivateBus> mDaemon;
    SystemBus mBus;
};

TEST_F(SystemBusTest, ConnectionIsMadeOnceAndKept)
{
    GDBusConnection *connection = mBus.Connection();

    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(mBus.Connection(), connection);
}

TEST_F(SystemBusTest, MissingBusIsToldOnce)
{
    mDaemon->Stop();
    StderrCapture log;

    EXPECT_EQ(mBus.Connection(), nullptr);
    EXPECT_EQ(mBus.Connection(), nullptr);

    const std::string lines = log.Take();
    EXPECT_THAT(lines, StartsWith("W platform: system bus: "));
    EXPECT_EQ(lines.find('\n'), lines.size() - 1);
}

TEST_F(SystemBusTest, LostConnectionIsMadeAnew)
{
    StderrCapture log;
    GDBusConnection *connection = mBus.Connection();
    ASSERT_NE(connection, nullptr);
    mDaemon->Stop();
    ASSERT_TRUE(RunUntil([&] { return mBus.Connection() == nullptr; }));

    mDaemon->Start();

    EXPECT_NE(mBus.Connection(), nullptr);
    EXPECT_EQ(log.Take(), "W platform: system bus: the connection is lost\n"
                          "I platform: system bus: connected again\n");
}

} // namespace ParvanePlatform
