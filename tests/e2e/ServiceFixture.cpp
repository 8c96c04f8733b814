#include "ServiceFixture.h"

#include <bit>
#include <csignal>
#include <cstdlib>
#include <limits>

namespace {

// What a sanitizer or the coverage of a test build needs from outside.
constexpr const char *kPassedOn[] = {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "GCOV_PREFIX",
                                     "GCOV_PREFIX_STRIP"};

constexpr std::size_t kReadingSize = 18;
constexpr std::size_t kValueOffset = 13;

} // namespace

ServiceFixture::ServiceFixture()
    : mStateDirectory(mFolder.Path() / "state"), mRunDirectory(mFolder.Path() / "run")
{
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
    for (const char *name : kPassedOn) {
        const char *const value = std::getenv(name);
        if (value != nullptr) {
            environment[name] = value;
        }
    }
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

float ValueOf(const Bytes &packet)
{
    if (packet.size() != kReadingSize) {
        return std::numeric_limits<float>::quiet_NaN();
    }
    uint32_t bits = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        bits = (bits << 8U) | packet[kValueOffset + i];
    }
    return std::bit_cast<float>(bits);
}
