#include "ServiceFixture.h"

#include <bit>
#include <csignal>
#include <cstdlib>
#include <limits>
#include <sys/stat.h>

namespace {

constexpr std::size_t kTimeOffset = 9;
constexpr std::size_t kValueOffset = 13;

/** The number of four bytes from `offset` on. */
uint32_t NumberAt(const Bytes &packet, std::size_t offset)
{
    uint32_t number = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        number = number << 8U | packet.at(offset + i);
    }
    return number;
}

} // namespace

ServiceFixture::ServiceFixture()
    : mStateDirectory(mFolder.Path() / "state"), mRunDirectory(mFolder.Path() / "run")
{
    // The service takes no directory that others may write to.
    ::umask(S_IWGRP | S_IWOTH);
    // Nothing of how this machine itself is configured reaches the service.
    WriteFile(mFolder.Path() / "no-platform.conf", "");
}

Environment ServiceFixture::BaseEnvironment() const
{
    Environment environment = {{"STATE_DIRECTORY", mStateDirectory.string()},
                               {"RUNTIME_DIRECTORY", mRunDirectory.string()},
                               {"PARVANE_PLATFORM_CONF", mFolder.Path() / "no-platform.conf"},
                               {"PARVANE_BT_ADDRESS", "AA:BB:CC:DD:EE:0F"},
                               {"TZ", "UTC"}};
    environment.merge(PassedOn());
    return environment;
}

Process &ServiceFixture::StartService(const Environment &more)
{
    Environment environment = BaseEnvironment();
    for (const auto &[name, value] : more) {
        environment[name] = value;
    }
    mService.reset();
    mService = std::make_unique<Process>(std::vector<std::string>{PARVANE_PROGRAM}, environment,
                                         mFolder.Path());
    return *mService;
}

int ServiceFixture::StopService()
{
    mService->Signal(SIGTERM);
    return mService->WaitForEnd().value_or(-1);
}

std::string ServiceFixture::WriteRecording(const std::vector<std::string> &rows,
                                           const std::string &more) const
{
    std::string text = "t_ms,heart_rate,total_steps,walk_steps,run_steps,distance_m,calories_kcal,"
                       "speed,activity,gesture" +
                       more + "\n";
    for (const std::string &row : rows) {
        text += row + "\n";
    }
    const std::filesystem::path path = mFolder.Path() / "recording.csv";
    WriteFile(path, text);
    return path.string();
}

bool IsReadingOf(const Bytes &packet, uint8_t sensor)
{
    return packet.size() == kReadingSize && packet[kSensorOffset] == sensor;
}

float ValueOf(const Bytes &packet)
{
    return packet.size() == kReadingSize ? std::bit_cast<float>(NumberAt(packet, kValueOffset))
                                         : std::numeric_limits<float>::quiet_NaN();
}

uint32_t TimeOf(const Bytes &packet)
{
    return NumberAt(packet, kTimeOffset);
}
