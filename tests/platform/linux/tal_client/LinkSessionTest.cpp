#include "LinkSession.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "StartupError.h"
#include "TestSupport.h"
#include "UniqueFd.h"

namespace ParvanePlatform {

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kChannel = 143;

/** A host's end of the link: a plain socket. */
class RawHost
{
public:
    explicit RawHost(const std::string &path)
        : mFd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        const auto *generic = reinterpret_cast<const sockaddr *>(&address);
        mConnectError = connect(mFd.Get(), generic, sizeof address) == 0 ? 0 : errno;
    }

    int ConnectError() const { return mConnectError; }

    void Send(const std::string &message) const
    {
        EXPECT_EQ(send(mFd.Get(), message.data(), message.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(message.size()));
    }

    /** The next message; "nothing" when there is none, "end" when the connection is closed. */
    std::string Receive() const
    {
        std::string buffer(70000, '\0');
        const ssize_t count = recv(mFd.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (count < 0) {
            return errno == EAGAIN ? "nothing" : "end";
        }
        return count == 0 ? "end" : buffer.substr(0, static_cast<std::size_t>(count));
    }

    bool IsClosed() const
    {
        pollfd state = {mFd.Get(), 0, 0};
        return poll(&state, 1, 0) > 0 && (state.revents & POLLHUP) != 0;
    }

    void Close() { mFd.Reset(); }
    int Fd() const { return mFd.Get(); }

private:
    Parvane::UniqueFd mFd;
    int mConnectError = 0;
};

} // namespace

/**
 * The link over a real socket, with a service that does what the watch's service does: it accepts
 * what is indicated, and follows the status key. What it is told is noted in mEvents.
 */
class LinkSessionTest : public testing::Test
{
public:
    ~LinkSessionTest() override { sCurrent = nullptr; }

protected:
    LinkSessionTest() : mKeys(mDirectory.Path(), mDirectory.Path())
    {
        sCurrent = this;
        Start();
    }

    void Start()
    {
        mLink.reset();
        mLink = std::make_unique<LinkSession>(mDirectory.Path(), mKeys, mClock);
    }

    /** Registers as the service does at its start. */
    void StartService()
    {
        ASSERT_EQ(mKeys.Watch(LinkSession::kStatusKey, OnKeyChanged, nullptr), 0);
        Register();
        ASSERT_TRUE(RunUntil([this] { return mAgentId > 0; }));
        TakeEvents();
    }

    void Register()
    {
        mLink->RegisterNotifications(Notifications());
        EXPECT_EQ(mLink->RegisterAgent(&mService), 0);
    }

    void Unregister()
    {
        if (mConnectionId > 0) {
            EXPECT_EQ(mLink->Terminate(mConnectionId), 0);
        }
        EXPECT_EQ(mLink->DeregisterAgent(mAgentId), 0);
        mLink->DeregisterNotifications();
        mConnectionId = -1;
        mAgentId = -1;
    }

    static tal_notifications Notifications()
    {
        tal_notifications notifications = {};
        notifications.registerServiceAgentConfirm = OnConfirm;
        notifications.dataReceived = OnData;
        notifications.serviceConnectionIndication = OnIndication;
        notifications.serviceTerminated = OnTerminated;
        notifications.peerAgent = OnPeerAgent;
        return notifications;
    }

    static void Note(const std::string &event)
    {
        sCurrent->mEvents.push_back(event);
        if (sCurrent->mOnEvent) {
            sCurrent->mOnEvent(event);
        }
    }

    static void OnConfirm(int result, int agentId) noexcept
    {
        sCurrent->mAgentId = agentId;
        Note("confirm " + std::to_string(result));
    }

    static void OnData(int connectionId, int channelId, int size, const void *data) noexcept
    {
        EXPECT_EQ(connectionId, sCurrent->mConnectionId);
        EXPECT_EQ(channelId, kChannel);
        const std::string text(static_cast<const char *>(data), static_cast<std::size_t>(size));
        Note(size > 100 ? "data of " + std::to_string(size) : "data " + text);
    }

    static void OnIndication(int agentId, int connectionId, void *peer, void *detail) noexcept
    {
        (void)detail;
        EXPECT_NE(peer, nullptr);
        EXPECT_EQ(agentId, sCurrent->mAgentId);
        if (sCurrent->mAccepts) {
            EXPECT_EQ(sCurrent->mLink->Accept(agentId, connectionId), 0);
        }
        sCurrent->mConnectionId = connectionId;
        Note("connected");
    }

    static void OnTerminated(int connectionId) noexcept
    {
        EXPECT_EQ(connectionId, sCurrent->mConnectionId);
        Note("terminated");
    }

    static void OnPeerAgent(int /*agentId*/, void * /*peer*/, int status) noexcept
    {
        Note("peer " + std::to_string(status));
    }

    static void OnKeyChanged(vconf_node * /*node*/, void * /*userData*/) noexcept
    {
        const int status = sCurrent->Status();
        Note("key " + std::to_string(status));
        if (status == 1 && sCurrent->mAgentId < 0 && sCurrent->mFollowsKey) {
            sCurrent->Register();
        } else if (status == 0 && sCurrent->mAgentId > 0 && sCurrent->mFollowsKey) {
            sCurrent->Unregister();
        }
    }

    int Status() const
    {
        int value = -1;
        mKeys.GetInt(LinkSession::kStatusKey, value);
        return value;
    }

    std::string Socket() const { return mDirectory / "link.sock"; }
    std::vector<std::string> TakeEvents() { return std::exchange(mEvents, {}); }

    /** Waits for an event, then for all that follows at once. @return all events */
    std::vector<std::string> WaitFor(const std::string &event)
    {
        EXPECT_TRUE(RunUntil([&] { return testing::Value(mEvents, Contains(event)); })) << event;
        RunWhileBusy();
        return TakeEvents();
    }

    int Send(const std::string &message)
    {
        return mLink->Send(mConnectionId, kChannel, static_cast<int>(message.size()),
                           message.data());
    }

    static inline LinkSessionTest *sCurrent = nullptr;

    TemporaryDirectory mDirectory;
    ManualClock mClock;
    KeyValueStore mKeys;
    std::unique_ptr<LinkSession> mLink;
    tal_channel_descriptor mChannelDescriptor = {kChannel, 0, 1, {}};
    tal_service_descriptor mService = {"/profile", "name", 4, 1, &mChannelDescriptor, 1, {}};
    bool mAccepts = true;
    bool mFollowsKey = true;
    int mAgentId = -1;
    int mConnectionId = -1;
    std::vector<std::string> mEvents;
    std::function<void(const std::string &)> mOnEvent;
    /** The link's own lines; taken by tests that look at them. */
    StderrCapture mLog;
};

TEST_F(LinkSessionTest, SocketIsForTheOwnerAloneAndGoesWithTheLink)
{
    EXPECT_EQ(ModeOf(Socket()), 0600U);
    mLink.reset();
    EXPECT_FALSE(FileExists(Socket()));
}

TEST_F(LinkSessionTest, SocketOfAnEarlierRunIsReplaced)
{
    std::filesystem::create_hard_link(Socket(), mDirectory / "stale");
    mLink.reset();
    std::filesystem::rename(mDirectory / "stale", Socket());
    Start();
    EXPECT_EQ(RawHost(Socket()).ConnectError(), 0);
}

TEST_F(LinkSessionTest, PathThatIsTooLongIsNamedWithItsLength)
{
    const std::string directory =
        mDirectory / std::string(108 - mDirectory.Path().size() - 11, 'd');
    std::filesystem::create_directory(directory);
    try {
        const LinkSession link(directory, mKeys, mClock);
        FAIL() << "no error";
    } catch (const StartupError &failure) {
        EXPECT_EQ(failure.what(), "cannot make the socket " + directory +
                                      "/link.sock: its path has 108 bytes, the system allows 107");
    }
}

TEST_F(LinkSessionTest, SocketThatCannotBeMadeIsNamedWithTheReason)
{
    try {
        const LinkSession link(mDirectory / "none", mKeys, mClock);
        FAIL() << "no error";
    } catch (const StartupError &failure) {
        EXPECT_EQ(failure.what(), "cannot make the socket " + (mDirectory / "none/link.sock") +
                                      ": No such file or directory");
    }
}

TEST_F(LinkSessionTest, KeyIsOneAtTheStartAndZeroAtTheEnd)
{
    EXPECT_EQ(Status(), 1);
    mLink.reset();
    EXPECT_EQ(Status(), 0);
}

TEST_F(LinkSessionTest, AgentIsConfirmedFromTheMainLoop)
{
    Register();
    EXPECT_THAT(mEvents, IsEmpty());
    EXPECT_THAT(WaitFor("confirm 0"), ElementsAre("confirm 0"));
    EXPECT_GT(mAgentId, 0);
}

TEST_F(LinkSessionTest, AgentThatIsGoneIsNotConfirmed)
{
    Register();
    EXPECT_EQ(mLink->DeregisterAgent(1), 0);
    RunWhileBusy();
    EXPECT_THAT(TakeEvents(), IsEmpty());
}

TEST_F(LinkSessionTest, NoConfirmationComesAfterDeregistration)
{
    Register();
    mLink->DeregisterNotifications();
    RunWhileBusy();
    EXPECT_THAT(TakeEvents(), IsEmpty());
    mLink->RegisterNotifications(Notifications());
    EXPECT_THAT(WaitFor("confirm 0"), ElementsAre("confirm 0"));
}

TEST_F(LinkSessionTest, IncompleteDescriptorsAreRefused)
{
    EXPECT_EQ(mLink->RegisterAgent(nullptr), 1);
    for (int missing = 0; missing < 4; ++missing) {
        tal_service_descriptor service = mService;
        (missing == 0 ? service.profileId : service.serviceName) = missing < 2 ? nullptr : "n";
        service.channels = missing == 2 ? nullptr : service.channels;
        service.channelCount = missing == 3 ? 0 : 1;
        EXPECT_EQ(mLink->RegisterAgent(&service), 1) << missing;
    }
    EXPECT_EQ(mLink->RegisterAgent(&mService), 0);
}

TEST_F(LinkSessionTest, NewRegistrationReplacesTheOneBeforeAndKeepsTheHost)
{
    StartService();
    const RawHost host(Socket());
    WaitFor("connected");
    const int agentId = mAgentId;

    EXPECT_EQ(mLink->RegisterAgent(&mService), 0);

    EXPECT_THAT(WaitFor("confirm 0"), ElementsAre("confirm 0"));
    EXPECT_EQ(mAgentId, agentId);
    host.Send("request");
    EXPECT_THAT(WaitFor("data request"), ElementsAre("data request"));
}

TEST_F(LinkSessionTest, UnknownAgentsAreRefused)
{
    EXPECT_EQ(mLink->DeregisterAgent(1), 1);
    EXPECT_EQ(mLink->FindPeer(1), 1);
    StartService();
    EXPECT_EQ(mLink->DeregisterAgent(mAgentId + 1), 1);
    EXPECT_EQ(mLink->FindPeer(mAgentId + 1), 1);
}

TEST_F(LinkSessionTest, HostIsIndicatedOnceTheAgentIsConfirmed)
{
    const RawHost host(Socket());
    RunWhileBusy();
    EXPECT_THAT(TakeEvents(), IsEmpty());
    Register();
    EXPECT_THAT(WaitFor("connected"), ElementsAre("confirm 0", "connected"));
}

TEST_F(LinkSessionTest, MessagesGoBothWays)
{
    StartService();
    const RawHost host(Socket());
    WaitFor("connected");
    host.Send("request");
    EXPECT_THAT(WaitFor("data request"), ElementsAre("data request"));
    EXPECT_EQ(Send("answer"), 0);
    EXPECT_EQ(Send("more"), 0);
    EXPECT_EQ(host.Receive(), "answer");
    EXPECT_EQ(host.Receive(), "more");
    EXPECT_EQ(host.Receive(), "nothing");
}

TEST_F(LinkSessionTest, TheTapHasEachPacketThatCrossesInItsOrder)
{
    std::vector<std::string> seen;
    StartService();
    mLink->SetTap([&](const LinkSession::Packet &packet) {
        seen.push_back(std::to_string(packet.mConnectionId) +
                       (packet.mIsFromHost ? " in " : " out ") +
                       std::string(packet.mBytes.begin(), packet.mBytes.end()));
    });
    RawHost host(Socket());
    RunWhileBusy();
    host.Send("request");
    RunWhileBusy();
    EXPECT_EQ(Send("answer"), 0);
    EXPECT_NE(mLink->Send(mConnectionId + 1, kChannel, 1, "x"), 0);
    const std::string link = std::to_string(mConnectionId);
    EXPECT_THAT(seen, ElementsAre(link + " in request", link + " out answer"));

    mLink->SetTap(nullptr);
    EXPECT_EQ(Send("more"), 0);
    EXPECT_EQ(seen.size(), 2U);
}

TEST_F(LinkSessionTest, WhatIsSentBeforeTheAcceptanceIsKept)
{
    const RawHost host(Socket());
    host.Send("early");
    RunWhileBusy();
    StartService();
    EXPECT_THAT(WaitFor("data early"), Contains("data early"));
}

TEST_F(LinkSessionTest, SecondHostIsClosedAtOnceAndTheFirstGoesOn)
{
    StartService();
    const RawHost first(Socket());
    WaitFor("connected");
    const RawHost second(Socket());
    EXPECT_TRUE(RunUntil([&second] { return second.IsClosed(); }));
    EXPECT_THAT(TakeEvents(), IsEmpty());
    EXPECT_EQ(Status(), 1);
    first.Send("still here");
    EXPECT_THAT(WaitFor("data still here"), ElementsAre("data still here"));
    EXPECT_EQ(Send("yes"), 0);
    EXPECT_EQ(first.Receive(), "yes");
    EXPECT_THAT(mLog.Take(), testing::HasSubstr("W platform: accessory link: a second host is "
                                                "refused\n"));
}

TEST_F(LinkSessionTest, HostThatGoesIsTerminatedThenTheKeyFollows)
{
    StartService();
    RawHost host(Socket());
    WaitFor("connected");
    mOnEvent = [this](const std::string &event) {
        if (event == "terminated") {
            EXPECT_EQ(Status(), 1);
        }
    };
    host.Close();
    EXPECT_THAT(WaitFor("key 0"), ElementsAre("terminated", "key 0"));
    EXPECT_EQ(Status(), 0);
    EXPECT_EQ(mAgentId, -1);
}

TEST_F(LinkSessionTest, EverythingThatTheHostHasSentComesBeforeItsEnd)
{
    StartService();
    RawHost host(Socket());
    WaitFor("connected");
    EXPECT_EQ(Send("never read"), 0); // so that the host's end comes as an error, too
    std::vector<std::string> expected;
    for (int i = 0; i < 100; ++i) {
        host.Send(std::to_string(i));
        expected.push_back("data " + std::to_string(i));
    }
    host.Close();
    expected.insert(expected.end(), {"terminated", "key 0"});
    EXPECT_EQ(WaitFor("key 0"), expected);
}

TEST_F(LinkSessionTest, HalfClosedHostIsGone)
{
    StartService();
    const RawHost host(Socket());
    WaitFor("connected");
    host.Send("last");
    ASSERT_EQ(shutdown(host.Fd(), SHUT_WR), 0);
    EXPECT_THAT(WaitFor("key 0"), ElementsAre("data last", "terminated", "key 0"));
    EXPECT_TRUE(host.IsClosed());
}

TEST_F(LinkSessionTest, ServiceSeesZeroBetweenTwoHosts)
{
    StartService();
    RawHost first(Socket());
    first.Send("a");
    WaitFor("data a");
    first.Close();
    const RawHost second(Socket()); // before the link knows of the first one's end
    second.Send("b");
    EXPECT_THAT(WaitFor("data b"),
                ElementsAre("terminated", "key 0", "key 1", "confirm 0", "connected", "data b"));
}

TEST_F(LinkSessionTest, HostsThatComeAndGoAreServedOneAfterTheOther)
{
    StartService();
    for (int i = 0; i < 5; ++i) {
        RawHost host(Socket());
        host.Send(std::to_string(i));
        host.Close();
    }
    std::vector<std::string> data;
    EXPECT_TRUE(RunUntil([this] { return testing::Value(mEvents, Contains("data 4")); }));
    for (const std::string &event : TakeEvents()) {
        if (event.starts_with("data")) {
            data.push_back(event);
        }
    }
    EXPECT_THAT(data, ElementsAre("data 0", "data 1", "data 2", "data 3", "data 4"));
}

TEST_F(LinkSessionTest, HostThatIsNotAcceptedIsClosed)
{
    mAccepts = false;
    StartService();
    const RawHost host(Socket());
    EXPECT_THAT(WaitFor("key 0"), ElementsAre("connected", "key 0"));
    EXPECT_TRUE(host.IsClosed());
}

TEST_F(LinkSessionTest, AcceptanceMustNameTheIndicatedConnection)
{
    StartService();
    EXPECT_EQ(mLink->Accept(mAgentId, 1), 2);
    mAccepts = false;
    mOnEvent = [this](const std::string &event) {
        if (event == "connected") {
            EXPECT_EQ(mLink->Accept(mAgentId + 1, mConnectionId), 1);
            EXPECT_EQ(mLink->Accept(mAgentId, mConnectionId + 1), 2);
            EXPECT_EQ(mLink->Accept(mAgentId, mConnectionId), 0);
            EXPECT_EQ(mLink->Accept(mAgentId, mConnectionId), 2);
        }
    };
    const RawHost host(Socket());
    WaitFor("connected");
    EXPECT_FALSE(host.IsClosed());
}

TEST_F(LinkSessionTest, ServiceCanCloseTheConnection)
{
    StartService();
    const RawHost host(Socket());
    WaitFor("connected");
    const int connectionId = mConnectionId;
    EXPECT_EQ(mLink->Terminate(connectionId + 1), 2);
    EXPECT_EQ(mLink->Terminate(connectionId), 0);
    EXPECT_TRUE(host.IsClosed());
    EXPECT_EQ(mLink->Terminate(connectionId), 0); // the service does so when it sees the 0
    EXPECT_THAT(WaitFor("key 0"), ElementsAre("key 0"));
    EXPECT_EQ(mLink->Terminate(connectionId), 2);
}

TEST_F(LinkSessionTest, ServiceMayCloseTheConnectionInAnyNotification)
{
    for (const char *when : {"connected", "data x", "terminated"}) {
        mAgentId = -1;
        mConnectionId = -1;
        TakeEvents();
        Start();
        mOnEvent = [this, when](const std::string &event) {
            if (event == when) {
                EXPECT_EQ(mLink->Terminate(mConnectionId), 0);
                EXPECT_EQ(mLink->DeregisterAgent(mAgentId), 0);
                mLink->DeregisterNotifications();
            }
        };
        Register();
        RawHost host(Socket());
        host.Send("x");
        host.Send("y");
        host.Close();
        EXPECT_TRUE(RunUntil([this] { return Status() == 0; })) << when;
        RunWhileBusy();
        EXPECT_THAT(mEvents.back(), when);
    }
}

TEST_F(LinkSessionTest, ForeignZeroEndsTheConnectionAndTheNextHostBringsTheOneBack)
{
    StartService();
    const RawHost first(Socket());
    WaitFor("connected");
    WriteFile(mDirectory / LinkSession::kStatusKey, "0\n");
    EXPECT_THAT(WaitFor("key 0"), ElementsAre("key 0"));
    EXPECT_TRUE(first.IsClosed());
    const RawHost second(Socket());
    EXPECT_THAT(WaitFor("connected"), ElementsAre("key 1", "confirm 0", "connected"));
}

TEST_F(LinkSessionTest, EmptyMessageIsDroppedAndIsNoEnd)
{
    StartService();
    const RawHost host(Socket());
    host.Send("");
    WaitFor("connected");
    host.Send("");
    host.Send("x");
    EXPECT_THAT(WaitFor("data x"), ElementsAre("data x"));
}

TEST_F(LinkSessionTest, EmptyMessageOfAHostThatHasGoneIsNotTheEndOfWhatItHasSent)
{
    StartService();
    {
        const RawHost host(Socket());
        WaitFor("connected");
        host.Send("");
        host.Send("x");
        host.Send("");
    }
    EXPECT_THAT(WaitFor("key 0"), ElementsAre("data x", "terminated", "key 0"));
}

TEST_F(LinkSessionTest, MessageThatIsTooLongIsDroppedAndTheHostStays)
{
    StartService();
    const RawHost host(Socket());
    WaitFor("connected");
    host.Send(std::string(65537, 'x'));
    host.Send(std::string(65536, 'x'));
    EXPECT_THAT(WaitFor("data of 65536"), ElementsAre("data of 65536"));
    EXPECT_THAT(mLog.Take(), testing::HasSubstr("W platform: accessory link: a message of more "
                                                "than 65536 bytes is dropped\n"));
}

TEST_F(LinkSessionTest, ArgumentsOfSendAreChecked)
{
    StartService();
    EXPECT_EQ(mLink->Send(-1, kChannel, 1, "x"), 2);
    const RawHost host(Socket());
    WaitFor("connected");
    const std::string large(65532, 'x');
    EXPECT_EQ(mLink->Send(mConnectionId, kChannel, 1, nullptr), 1);
    EXPECT_EQ(mLink->Send(mConnectionId, kChannel, 0, "x"), 1);
    EXPECT_EQ(mLink->Send(mConnectionId, kChannel, -1, "x"), 1);
    EXPECT_EQ(mLink->Send(mConnectionId, kChannel, 65532, large.data()), 1);
    EXPECT_EQ(mLink->Send(mConnectionId, kChannel + 1, 1, "x"), 1);
    EXPECT_EQ(mLink->Send(mConnectionId + 1, kChannel, 1, "x"), 2);
    EXPECT_EQ(host.Receive(), "nothing");
    EXPECT_EQ(mLink->Send(mConnectionId, kChannel, 65531, large.data()), 0);
    EXPECT_EQ(host.Receive().size(), 65531U);
}

TEST_F(LinkSessionTest, FullBufferIsToldAndDrainsWhenTheHostReads)
{
    StartService();
    const RawHost host(Socket());
    WaitFor("connected");
    int sent = 0;
    int result = 0;
    while (result == 0 && sent < 10000) {
        result = Send(std::string(1000, 'x'));
        sent += result == 0 ? 1 : 0;
    }
    EXPECT_EQ(result, 4);
    EXPECT_GT(sent, 10);
    for (int i = 0; i < sent; ++i) {
        EXPECT_EQ(host.Receive().size(), 1000U);
    }
    EXPECT_EQ(Send("again"), 0);
}

TEST_F(LinkSessionTest, SendToAHostThatHasGoneIsANetworkFailure)
{
    mFollowsKey = false;
    StartService();
    RawHost host(Socket());
    WaitFor("connected");
    host.Close();
    EXPECT_EQ(Send("x"), 3); // the link has not seen the end yet
    mOnEvent = [this](const std::string &event) {
        if (event == "terminated") {
            EXPECT_EQ(Send("x"), 3);
        }
    };
    WaitFor("key 0");
    EXPECT_EQ(Send("x"), 2);
}

TEST_F(LinkSessionTest, PeerSearchIsAnsweredFromTheMainLoop)
{
    StartService();
    EXPECT_EQ(mLink->FindPeer(mAgentId), 0);
    EXPECT_THAT(TakeEvents(), IsEmpty());
    EXPECT_THAT(WaitFor("peer 3"), ElementsAre("peer 3"));
    const RawHost host(Socket());
    WaitFor("connected");
    EXPECT_EQ(mLink->FindPeer(mAgentId), 0);
    EXPECT_THAT(WaitFor("peer 0"), ElementsAre("peer 0"));
}

TEST_F(LinkSessionTest, PeerSearchFromItsAnswerGetsATurnOfItsOwn)
{
    StartService();
    EXPECT_EQ(mLink->FindPeer(mAgentId), 0);
    int searches = 1;
    mOnEvent = [this, &searches](const std::string &event) {
        if (event == "peer 3" && searches < 11) {
            ++searches;
            EXPECT_EQ(mLink->FindPeer(mAgentId), 0);
        }
    };
    EXPECT_TRUE(RunUntil([this] { return mEvents.size() == 11; }));
    RunWhileBusy();
    EXPECT_EQ(mEvents.size(), 11U);
}

TEST_F(LinkSessionTest, NothingIsReadWhileNobodyListens)
{
    mFollowsKey = false;
    StartService();
    RawHost host(Socket());
    WaitFor("connected");
    mLink->DeregisterNotifications();
    host.Send("x");
    RunWhileBusy();
    EXPECT_THAT(TakeEvents(), IsEmpty());
    mLink->RegisterNotifications(Notifications());
    EXPECT_THAT(WaitFor("data x"), ElementsAre("data x"));
    mLink->DeregisterNotifications();
    host.Close();
    EXPECT_THAT(WaitFor("key 0"), ElementsAre("key 0"));
}

TEST_F(LinkSessionTest, ListenerMayStopListeningInTheMiddle)
{
    StartService();
    const RawHost host(Socket());
    WaitFor("connected");
    mOnEvent = [this](const std::string &event) {
        if (event == "data a") {
            mLink->DeregisterNotifications();
        }
    };
    host.Send("a");
    host.Send("b");
    EXPECT_THAT(WaitFor("data a"), ElementsAre("data a"));
    mLink->RegisterNotifications(Notifications());
    EXPECT_THAT(WaitFor("data b"), ElementsAre("data b"));
}

TEST_F(LinkSessionTest, HostThatLeavesWhileTheServiceIsNotReadyIsGivenUp)
{
    RawHost first(Socket());
    RunWhileBusy();
    first.Send("x");
    first.Close();
    // The clock stands at 0: the wait is over at once.
    EXPECT_TRUE(RunUntil([this] { return Status() == 0; }));
    RunWhileBusy();
    StartService();
    const RawHost second(Socket());
    EXPECT_THAT(WaitFor("connected"), Contains("connected"));
    EXPECT_THAT(mLog.Take(), testing::HasSubstr("W platform: accessory link: a host has gone "
                                                "before the service was ready for it\n"));
}

TEST_F(LinkSessionTest, NullNotificationsAreNotCalled)
{
    mLink->RegisterNotifications(tal_notifications{});
    EXPECT_EQ(mLink->RegisterAgent(&mService), 0);
    EXPECT_EQ(mLink->FindPeer(1), 0);
    const RawHost host(Socket());
    EXPECT_TRUE(RunUntil([&host] { return host.IsClosed(); })); // nobody has accepted it
}

TEST_F(LinkSessionTest, FloodOfMessagesLeavesTheLoopToOthers)
{
    StartService();
    const RawHost host(Socket());
    WaitFor("connected");
    for (int i = 0; i < 100; ++i) {
        host.Send("x");
    }
    const auto isData = [](const std::string &event) { return event == "data x"; };
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_EQ(std::count_if(mEvents.begin(), mEvents.end(), isData),
              LinkTransport::kMessagesPerTurn);
    RunWhileBusy();
    EXPECT_EQ(std::count_if(mEvents.begin(), mEvents.end(), isData), 100);
}

TEST_F(LinkSessionTest, AfterLoneMessagesABunchIsReadInFewTurnsAgain)
{
    StartService();
    const RawHost host(Socket());
    WaitFor("connected");
    const auto isData = [](const std::string &event) { return event == "data x"; };
    for (int i = 0; i < 50; ++i) {
        host.Send("x");
        RunWhileBusy();
    }
    EXPECT_EQ(std::count_if(mEvents.begin(), mEvents.end(), isData), 50);

    for (int i = 0; i < LinkTransport::kMessagesPerTurn; ++i) {
        host.Send("x");
    }
    for (unsigned turn = 0; turn < LinkTransport::kLoneMessages; ++turn) {
        g_main_context_iteration(nullptr, FALSE);
    }
    EXPECT_EQ(std::count_if(mEvents.begin(), mEvents.end(), isData),
              50 + LinkTransport::kMessagesPerTurn);
}

#ifdef __SANITIZE_ADDRESS__
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

TEST_F(LinkSessionTest, LackOfDescriptorsPausesTheSocketAndLosesNoHost)
{
    if (kIsSanitized) {
        GTEST_SKIP() << "the undefined-behaviour sanitizer needs descriptors itself";
    }
    StartService();
    const RawHost host(Socket());
    rlimit old = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    const rlimit none = {static_cast<rlim_t>(host.Fd()) + 1, old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    g_main_context_iteration(nullptr, FALSE);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
    EXPECT_THAT(TakeEvents(), IsEmpty());
    EXPECT_THAT(WaitFor("connected"), ElementsAre("connected"));
    EXPECT_THAT(mLog.Take(), testing::HasSubstr("E platform: accessory link: cannot take a "
                                                "connection: Too many open files\n"));
}

TEST_F(LinkSessionTest, PauseDoesNotSpin)
{
    if (kIsSanitized) {
        GTEST_SKIP() << "the undefined-behaviour sanitizer needs descriptors itself";
    }
    mClock.mMonotonicUs = g_get_monotonic_time();
    const RawHost host(Socket());
    rlimit old = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    const rlimit none = {static_cast<rlim_t>(host.Fd()) + 1, old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    RunWhileBusy();
    EXPECT_GT(NextWakeMs(), 0);
    EXPECT_LE(NextWakeMs(), 1000);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
}

TEST_F(LinkSessionTest, TakingTheLinkDownEndsTheHostAsIfItHadGone)
{
    StartService();
    const RawHost host(Socket());
    WaitFor("connected");

    mLink->TakeDown();

    EXPECT_THAT(WaitFor("key 0"), ElementsAre("terminated", "key 0"));
    EXPECT_TRUE(host.IsClosed());
    EXPECT_EQ(Status(), 0);
    EXPECT_TRUE(mLink->Status().mIsDown);
}

TEST_F(LinkSessionTest, NoHostIsTakenUntilTheLinkIsUpAgain)
{
    StartService();
    mLink->TakeDown();
    EXPECT_THAT(WaitFor("key 0"), ElementsAre("key 0"));
    const RawHost host(Socket());
    host.Send("hello");
    RunWhileBusy();
    EXPECT_THAT(TakeEvents(), IsEmpty());
    EXPECT_EQ(host.Receive(), "nothing");
    EXPECT_EQ(Status(), 0);

    mLink->BringUp();

    EXPECT_THAT(WaitFor("data hello"),
                ElementsAre("key 1", "confirm 0", "connected", "data hello"));
}

TEST_F(LinkSessionTest, LinkThatGoesDownAndUpAtOnceShowsBothToTheWatchers)
{
    StartService();
    const RawHost host(Socket());
    WaitFor("connected");

    mLink->TakeDown();
    mLink->BringUp();

    EXPECT_THAT(WaitFor("confirm 0"), ElementsAre("terminated", "key 0", "key 1", "confirm 0"));
    const RawHost next(Socket());
    EXPECT_THAT(WaitFor("connected"), ElementsAre("connected"));
}

TEST_F(LinkSessionTest, HostThatTheServiceDoesNotKnowYetIsClosedWithoutAWord)
{
    const RawHost host(Socket());
    ASSERT_TRUE(
        RunUntil([this] { return mLink->Status().mHostState == LinkSession::HostState::Waiting; }));

    mLink->TakeDown();

    EXPECT_TRUE(host.IsClosed());
    EXPECT_THAT(TakeEvents(), IsEmpty());
}

TEST_F(LinkSessionTest, TakingDownOrBringingUpTwiceIsOnce)
{
    StartService();
    mLink->BringUp();
    RunWhileBusy();
    EXPECT_THAT(TakeEvents(), IsEmpty());

    mLink->TakeDown();
    mLink->TakeDown();
    EXPECT_THAT(WaitFor("key 0"), ElementsAre("key 0"));
    mLink->BringUp();
    mLink->BringUp();
    EXPECT_THAT(WaitFor("confirm 0"), ElementsAre("key 1", "confirm 0"));
}

TEST_F(LinkSessionTest, LinkThatIsDownWakesNobody)
{
    StartService();
    mLink->TakeDown();
    WaitFor("key 0");
    const RawHost host(Socket());
    RunWhileBusy();
    EXPECT_EQ(NextWakeMs(), -1);
}

TEST_F(LinkSessionTest, WhatCrossesTheLinkIsCounted)
{
    StartService();
    EXPECT_EQ(mLink->Status().mPeer.mPid, 0);
    const RawHost host(Socket());
    WaitFor("connected");
    const RawHost second(Socket());
    ASSERT_TRUE(RunUntil([&] { return second.IsClosed(); }));
    host.Send("four");
    host.Send("sixsix");
    WaitFor("data sixsix");
    EXPECT_EQ(Send("abc"), 0);
    std::uint64_t sent = 1;
    while (Send("abc") == 0) {
        ++sent;
    }

    const LinkSession::LinkStatus status = mLink->Status();
    EXPECT_EQ(status.mHostState, LinkSession::HostState::Open);
    EXPECT_EQ(status.mPeer.mPid, getpid());
    EXPECT_EQ(status.mPeer.mUid, geteuid());
    EXPECT_EQ(status.mConnected.mWallMs, mClock.mWallMs);
    EXPECT_EQ(status.mStatistics.mPacketsIn, 2U);
    EXPECT_EQ(status.mStatistics.mBytesIn, 10U);
    EXPECT_EQ(status.mStatistics.mPacketsOut, sent);
    EXPECT_EQ(status.mStatistics.mBytesOut, 3 * sent);
    EXPECT_EQ(status.mStatistics.mRefusedHosts, 1U);
    EXPECT_EQ(status.mStatistics.mQueueFull, 1U);
}

TEST_F(LinkSessionTest, HostOfAnotherUserIsRefused)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs two users";
    }
    StartService();
    ASSERT_EQ(chmod(mDirectory.Path().c_str(), 0711), 0);
    ASSERT_EQ(seteuid(65534), 0);
    EXPECT_EQ(RawHost(Socket()).ConnectError(), EACCES);
    ASSERT_EQ(seteuid(0), 0);

    ASSERT_EQ(chmod(Socket().c_str(), 0666), 0);
    ASSERT_EQ(seteuid(65534), 0);
    const RawHost stranger(Socket());
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_TRUE(RunUntil([&stranger] { return stranger.IsClosed(); }));
    EXPECT_THAT(TakeEvents(), IsEmpty());
    EXPECT_THAT(mLog.Take(), testing::HasSubstr("W platform: accessory link: a host of user 65534 "
                                                "is refused\n"));
}

TEST_F(LinkSessionTest, IdleLinkDoesNotWakeTheLoop)
{
    StartService();
    RawHost host(Socket());
    WaitFor("connected");
    RunWhileBusy();
    EXPECT_EQ(NextWakeMs(), -1);
    host.Close();
    WaitFor("key 0");
    RunWhileBusy();
    EXPECT_EQ(NextWakeMs(), -1);
}

TEST_F(LinkSessionTest, EndOfTheLinkClosesTheHost)
{
    StartService();
    const RawHost host(Socket());
    WaitFor("connected");
    mFollowsKey = false;
    mLink.reset();
    EXPECT_TRUE(host.IsClosed());
    EXPECT_NE(RawHost(Socket()).ConnectError(), 0);
    RunWhileBusy();
}

TEST_F(LinkSessionTest, EndOfTheLinkWithAKeyChangeUnderWayIsClean)
{
    StartService();
    RawHost host(Socket());
    WaitFor("connected");
    mOnEvent = nullptr;
    EXPECT_EQ(mLink->Terminate(mConnectionId), 0);
    mFollowsKey = false;
    mLink.reset();
    RunWhileBusy();
    EXPECT_THAT(TakeEvents(), ElementsAre("key 0"));
}

} // namespace ParvanePlatform
