#include "Service.h"

#include <array>
#include <cstdint>
#include <fstream>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

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

UnitStandIn::UnitStandIn(const std::filesystem::path &folder)
    : mManagerPath(folder / "notify"), mManager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    mManagerPath.string().copy(address.sun_path, sizeof address.sun_path - 1);
    if (bind(mManager.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        FailErrno(mManagerPath.string());
    }
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        FailErrno("socketpair");
    }
    mServiceStream = Fd(ends[0]);
    mJournalStream = Fd(ends[1]);
    mReader = std::thread([this] { ReadStream(); });
}

UnitStandIn::~UnitStandIn()
{
    OnStarted(); // also where the service has not: the reader sees the end of the stream
    mReader.join();
}

void UnitStandIn::AddTo(Child::Start &start) const
{
    struct stat stream = {};
    if (fstat(mServiceStream.Get(), &stream) != 0) {
        FailErrno("fstat");
    }
    start.mError = mServiceStream.Get();
    start.mEnvironment.push_back("NOTIFY_SOCKET=" + mManagerPath.string());
    start.mEnvironment.push_back("WATCHDOG_USEC=120000000");
    start.mEnvironment.push_back("JOURNAL_STREAM=" + std::to_string(stream.st_dev) + ":" +
                                 std::to_string(stream.st_ino));
}

void UnitStandIn::ReadStream() const
{
    std::array<char, 4096> text{};
    while (read(mJournalStream.Get(), text.data(), text.size()) > 0) {
    }
}

Service::Service(const Setting &setting, const Options &options)
    : mFolder(std::filesystem::temp_directory_path()),
      mDiskFolder(setting.mDisk),
      mUnit(options.mIsUnderUnit ? std::optional<UnitStandIn>(std::in_place, mFolder.Path())
                                 : std::nullopt),
      mChild(MakeStart(setting, options))
{
    if (mUnit) {
        mUnit->OnStarted();
    }
}

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
    if (mUnit) {
        mUnit->AddTo(start);
    }
    return start;
}

void Host::Ask(unsigned char command, unsigned char sensor,
               const std::vector<std::size_t> &sizes) const
{
    const std::array<std::uint8_t, 4> request = {command, 0, 0, sensor};
    SendMessage(mPeer, request.data(), request.size());
    constexpr int kTimeoutMs = 5000;
    for (const std::size_t size : sizes) {
        pollfd awaited{mPeer.Get(), POLLIN, 0};
        if (mPolls && poll(&awaited, 1, kTimeoutMs) <= 0) {
            Fail("no answer came");
        }
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
