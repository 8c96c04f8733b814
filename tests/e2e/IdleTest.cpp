#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>

#include "ServiceFixture.h"

namespace {

/** A minute, or what PARVANE_IDLE_SECONDS says. */
std::chrono::seconds IdleTime()
{
    const char *const seconds = std::getenv("PARVANE_IDLE_SECONDS");
    return std::chrono::seconds(seconds == nullptr ? 60 : std::stoi(seconds));
}

std::string StatusOf(pid_t pid, const std::string &field)
{
    std::istringstream status(ReadFile("/proc/" + std::to_string(pid) + "/status"));
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(field + ":", 0) == 0) {
            return line.substr(field.size() + 1);
        }
    }
    return "no " + field;
}

// A sleeping process that is woken up leaves its processor again, which the kernel counts.
std::string SwitchesOf(pid_t pid)
{
    return StatusOf(pid, "voluntary_ctxt_switches") + StatusOf(pid, "nonvoluntary_ctxt_switches");
}

} // namespace

/** What the service costs when nobody asks. */
class IdleTest : public ServiceFixture
{
protected:
    void ExpectAsleep()
    {
        const pid_t pid = mService->Pid();
        ASSERT_TRUE(
            Eventually([&] { return StatusOf(pid, "State").find('S') != std::string::npos; }));
        const auto threads =
            std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task");
        EXPECT_EQ(std::distance(begin(threads), end(threads)), 1);

        const std::string before = SwitchesOf(pid);
        std::this_thread::sleep_for(IdleTime());
        EXPECT_EQ(SwitchesOf(pid), before);
    }
};

TEST_F(IdleTest, ServiceWithoutAHostIsOneThreadThatSleepsForAMinute)
{
    StartService({{"PARVANE_TRACE", PARVANE_RECORDING}});
    ASSERT_TRUE(mService->HasLogged("app_service"));
    std::this_thread::sleep_for(std::chrono::seconds(1));

    ExpectAsleep();
}

TEST_F(IdleTest, ServiceWithAHostAndAViewerThatAskNothingSleepsForAMinute)
{
    StartService({{"PARVANE_TRACE", PARVANE_RECORDING}});
    const Host host(LinkPath());
    ASSERT_EQ(host.Ask({0x01, 0x00, 0x00, 0x00}, 5).size(), 5U);
    const Host viewer(mRunDirectory / "control.sock"); // it is a socket of the same kind
    ASSERT_EQ(viewer.Ask({'{', '}'}, 1).size(), 1U);

    ExpectAsleep();
}

TEST_F(IdleTest, ServiceThatIsObservedSleepsForAMinute)
{
    StartService({{"PARVANE_TRACE", PARVANE_RECORDING}});
    const Host host(LinkPath());
    ASSERT_EQ(host.Ask({0x01, 0x00, 0x00, 0x00}, 5).size(), 5U);
    const Host observer(mRunDirectory / "control.sock");
    const std::string request = R"({"request":"observe"})";
    ASSERT_EQ(observer.Ask({request.begin(), request.end()}, 1).size(), 1U);
    host.Send({0x01, 0x00, 0x00, 0x00});
    ASSERT_TRUE(observer.Receive().has_value()); // what has crossed the link
    const Host capturer(mRunDirectory / "control.sock");
    const std::string pause = R"({"request":"replay","action":"pause"})";
    const Host steering(mRunDirectory / "control.sock");
    ASSERT_EQ(steering.Ask({pause.begin(), pause.end()}, 1).size(), 1U);
    ASSERT_TRUE(observer.Receive().has_value()); // how it is played
    const std::string record = R"({"request":"record","on":["heart_rate"]})";
    const Host recorder(mRunDirectory / "control.sock"); // of what does not come while paused
    ASSERT_EQ(recorder.Ask({record.begin(), record.end()}, 2).size(), 2U);
    const std::string capture = R"({"request":"capture"})";
    ASSERT_EQ(capturer.Ask({capture.begin(), capture.end()}, 1).size(), 1U);

    ExpectAsleep();
}
