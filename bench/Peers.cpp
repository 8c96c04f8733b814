#include "Peers.h"

namespace ParvaneBench {

namespace {

class ServicePeer : public Peer
{
public:
    ServicePeer(const Setting &setting, bool polls)
        : mService(setting, {}), mHost(mService.ConnectHost(), polls)
    {}

    void AskForReading() override { mHost.MeasureActivity(); }
    void AskForList() override { mHost.List(); }

private:
    Service mService;
    Host mHost;
};

class EchoPeer : public Peer
{
public:
    EchoPeer(const Setting &setting, const std::string &mode)
        : mReadings(setting, mode, ReadingSizes()),
          mLists(setting, mode, ListSizes()),
          mToReadings(mReadings.Connect()),
          mToLists(mLists.Connect())
    {}

    // What is asked for makes no difference to an echo.
    void AskForReading() override { mToReadings.MeasureActivity(); }
    void AskForList() override { mToLists.List(); }

private:
    EchoServer mReadings;
    EchoServer mLists;
    Host mToReadings;
    Host mToLists;
};

} // namespace

std::unique_ptr<Peer> MakeServicePeer(const Setting &setting, bool polls)
{
    return std::make_unique<ServicePeer>(setting, polls);
}

std::unique_ptr<Peer> MakeEchoPeer(const Setting &setting, const std::string &mode)
{
    return std::make_unique<EchoPeer>(setting, mode);
}

EchoServer::EchoServer(const Setting &setting, const std::string &mode,
                       const std::vector<std::size_t> &sizes)
    : mFolder(std::filesystem::temp_directory_path()), mChild(MakeStart(setting, mode, sizes))
{}

Child::Start EchoServer::MakeStart(const Setting &setting, const std::string &mode,
                                   const std::vector<std::size_t> &sizes) const
{
    Child::Start start;
    start.mArguments = {setting.Yardstick("parvane-bench-echo"), mode,
                        (mFolder.Path() / "echo.sock").string()};
    for (const std::size_t size : sizes) {
        start.mArguments.push_back(std::to_string(size));
    }
    start.mCpu = setting.mServerCpu;
    return start;
}

} // namespace ParvaneBench
