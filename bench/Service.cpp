#include "Service.h"

#include <array>
#include <cstdint>
#include <fstream>

namespace ParvaneBench {

namespace {

constexpr unsigned char kList = 1;
constexpr unsigned char kMeasureOnce = 2;
constexpr unsigned char kStart = 3;

constexpr unsigned char kNoSensor = 0;
constexpr unsigned char kActivity = 1;
constexpr unsigned char kPedometer = 2;

} // namespace

const std::vector<std::size_t> &ListSizes()
{
    static const std::vector<std::size_t> sizes = {13, 25, 25, 25, 25};
    return sizes;
}

const std::vector<std::size_t> &ReadingSizes()
{
    static const std::vector<std::size_t> sizes = {18};
    return sizes;
}

Service::Service(const Setting &setting, const Options &options)
    : mFolder(std::filesystem::temp_directory_path()),
      mDiskFolder(setting.mDisk),
      mChild(MakeStart(setting, options))
{}

std::filesystem::path Service::Proc(const std::string &file) const
{
    return std::filesystem::path("/proc") / std::to_string(Pid()) / file;
}

Child::Start Service::MakeStart(const Setting &setting, const Options &options) const
{
    const auto state = options.mState.empty() ? mDiskFolder.Path() / "state" : options.mState;
    const auto configuration = mFolder.Path() / "platform.conf";
    std::ofstream(configuration) << options.mConfiguration;
    Child::Start start;
    start.mArguments = {setting.mService.string()};
    start.mEnvironment = options.mEnvironment;
    start.mEnvironment.push_back("STATE_DIRECTORY=" + state.string());
    start.mEnvironment.push_back("RUNTIME_DIRECTORY=" + (mFolder.Path() / "run").string());
    start.mEnvironment.push_back("PARVANE_PLATFORM_CONF=" + configuration.string());
    start.mLog = mDiskFolder.Path() / "log";
    start.mCpu = setting.mServerCpu;
    return start;
}

void Host::Ask(unsigned char command, unsigned char sensor,
               const std::vector<std::size_t> &sizes) const
{
    const std::array<std::uint8_t, 4> request = {command, 0, 0, sensor};
    SendMessage(mPeer, request.data(), request.size());
    for (const std::size_t size : sizes) {
        ReceiveMessage(mPeer, size);
    }
}

void Host::List() const
{
    Ask(kList, kNoSensor, ListSizes());
}

void Host::MeasureActivity() const
{
    Ask(kMeasureOnce, kActivity, ReadingSizes());
}

void Host::StartActivity() const
{
    Ask(kStart, kActivity, ReadingSizes());
}

void Host::OptInToSteps() const
{
    Ask(kMeasureOnce, kPedometer, ReadingSizes());
}

} // namespace ParvaneBench
