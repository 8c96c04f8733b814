#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Support.h"

namespace ParvaneBench {

/** Where things are, where to measure, and how long. */
struct Setting
{
    /** The service's executable, and the folder of the yardsticks. */
    std::filesystem::path mService;
    std::filesystem::path mYardsticks;
    /** The gateway's executable; empty: there is none to measure. */
    std::filesystem::path mGateway;
    /** A folder on a real disk, where what has to be durable is written. */
    std::filesystem::path mDisk;
    /** Fewer rounds. */
    bool mIsQuick = false;
    /** The processors of this process and of the servers. */
    int mClientCpu = 0;
    int mServerCpu = 0;

    /** The path of a yardstick. */
    std::string Yardstick(const std::string &name) const { return (mYardsticks / name).string(); }
};

/** The packets of a sensor list, and the one of a reading. */
const std::vector<std::size_t> &ListSizes();
const std::vector<std::size_t> &ReadingSizes();

/**
 * What the service's unit gives it: a manager to tell of readiness and signs of life, and standard
 * error that leads to a journal. Both sides are the bench's own; whether there is a journal behind the
 * socket to which entries go is up to the machine.
 */
class UnitStandIn
{
public:
    explicit UnitStandIn(const std::filesystem::path &folder);
    UnitStandIn(const UnitStandIn &) = delete;
    UnitStandIn &operator=(const UnitStandIn &) = delete;
    /** The service has ended. */
    ~UnitStandIn();

    /** Adds what the service finds at its start. */
    void AddTo(Child::Start &start) const;

    /** The service has started: it alone has the journal's stream. */
    void OnStarted() { mServiceStream = Fd(); }

private:
    void ReadStream() const;

    std::filesystem::path mManagerPath;
    Fd mManager;
    Fd mServiceStream;
    Fd mJournalStream;
    std::thread mReader;
};

/** A service that runs for the life of the object, with its state and sockets in new folders. */
class Service
{
public:
    struct Options
    {
        /** The text of its configuration file; empty: the defaults. */
        std::string mConfiguration;
        /** More of its environment. */
        std::vector<std::string> mEnvironment;
        /** Its state directory; empty: a new one on the disk. */
        std::filesystem::path mState;
        /** In the environment of its unit, rather than by itself with its log in a file. */
        bool mIsUnderUnit = false;
    };

    Service(const Setting &setting, const Options &options);

    pid_t Pid() const { return mChild.Pid(); }

    /** A file of the process below /proc. */
    std::filesystem::path Proc(const std::string &file) const;

    /** Connects a host; one at a time. */
    Fd ConnectHost() const { return ConnectTo(LinkPath()); }
    std::filesystem::path LinkPath() const { return mFolder.Path() / "run" / "link.sock"; }

    /** Connects to the control socket. */
    Fd ConnectControl() const { return ConnectTo(mFolder.Path() / "run" / "control.sock"); }

private:
    Child::Start MakeStart(const Setting &setting, const Options &options) const;

    TemporaryFolder mFolder;
    TemporaryFolder mDiskFolder;
    std::optional<UnitStandIn> mUnit;
    Child mChild;
};

/** A host that asks and waits for the whole answer. */
class Host
{
public:
    /** @param polls  waits in poll(), with a time-out, before it reads: as who waits for more than one thing */
    explicit Host(Fd peer, bool polls = false) : mPeer(std::move(peer)), mPolls(polls) {}

    void List() const;
    void MeasureActivity() const;
    void StartActivity() const;
    /** Opts in to steps, for good, and waits for the answer of the first time. */
    void OptInToSteps() const;

    /** Waits for a reading that comes by itself. */
    void AwaitReading() const { ReceiveMessage(mPeer, ReadingSizes().front()); }

    const Fd &Peer() const { return mPeer; }

private:
    void Ask(unsigned char command, unsigned char sensor,
             const std::vector<std::size_t> &sizes) const;

    Fd mPeer;
    bool mPolls;
};

} // namespace ParvaneBench
