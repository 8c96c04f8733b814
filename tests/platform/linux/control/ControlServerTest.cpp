#include "ControlServer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <platform/context_manager.h>

#include "ManualSource.h"
#include "StartupError.h"
#include "TestSupport.h"
#include "UniqueFd.h"

namespace ParvanePlatform {

namespace {

using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

/** A client's end of the control socket: a plain socket. */
class RawClient
{
public:
    explicit RawClient(const std::string &path)
        : mFd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(connect(mFd.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address),
                  0)
            << path;
    }

    bool Send(const std::string &message) const
    {
        return send(mFd.Get(), message.data(), message.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(message.size());
    }

    /** The next message; nothing when there is none, "end" when the connection is closed. */
    std::optional<std::string> TryReceive() const
    {
        std::string buffer(70000, '\0');
        ssize_t count = -1;
        do {
            count = recv(mFd.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        } while (count < 0 && errno == ECONNRESET);
        if (count < 0) {
            return errno == EAGAIN ? std::nullopt : std::optional<std::string>("end");
        }
        return count == 0 ? "end" : buffer.substr(0, static_cast<std::size_t>(count));
    }

    /** The next message, for which the main loop is turned. */
    std::string Receive() const
    {
        std::optional<std::string> message;
        EXPECT_TRUE(RunUntil([&] {
            message = message ? message : TryReceive();
            return message.has_value();
        }));
        return message.value_or("nothing");
    }

    std::string Ask(const std::string &message) const
    {
        EXPECT_TRUE(Send(message));
        return Receive();
    }

    void Close() { mFd.Reset(); }
    int Fd() const { return mFd.Get(); }

private:
    Parvane::UniqueFd mFd;
};

#ifdef __SANITIZE_ADDRESS__
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

/** Answers with what it was sent, and some words of its own. */
class EchoHandler : public ControlHandler
{
public:
    EchoHandler(std::vector<std::string> &events, std::vector<std::string> &changes,
                LinkSession::Tap &tap)
        : mEvents(events), mChanges(changes), mTap(tap)
    {}

    ControlAnswer Answer(std::string_view message, int peerPid) override
    {
        EXPECT_EQ(peerPid, getpid());
        if (message == "throw") {
            throw std::runtime_error("broken");
        }
        if (message == "long") {
            return {std::string(ControlServer::kMaxReplyBytes, 'x'), false, nullptr};
        }
        if (message == "later") {
            return {"told", false, [this] { mEvents.emplace_back("done"); }};
        }
        std::vector<std::shared_ptr<void>> held;
        if (message == "record") {
            held.emplace_back(nullptr, [this](void *) { mEvents.emplace_back("let go"); });
        }
        return {"echo " + std::string(message), message == "record", nullptr,
                message == "observe",           std::move(held),     message == "capture"};
    }

    std::vector<std::string> TakeChanges() override { return std::exchange(mChanges, {}); }

    void TapLink(LinkSession::Tap tap) override { mTap = std::move(tap); }

private:
    std::vector<std::string> &mEvents;
    std::vector<std::string> &mChanges;
    LinkSession::Tap &mTap;
};

/** What follows the heart rate in a row that has nothing else, and the row's end, as JSON. */
constexpr char kRest[] = ",,,,,,,,,,,,\\n";

/** The message of a row with a heart rate. */
std::string HeartRateRow(std::int64_t timeMs, int rate)
{
    return "{\"row\":\"" + std::to_string(timeMs) + "," + std::to_string(rate) + kRest + "\"}";
}

/** An error reply. */
class ErrorOf
{
public:
    explicit ErrorOf(const std::string &reply) : mReply(json::parse(reply, nullptr, false)) {}

    std::string Code() const { return mReply.at("error").at("code"); }
    std::string Message() const { return mReply.at("error").at("message"); }

private:
    json mReply;
};

} // namespace

/** The server on a real socket, with a manual heart rate to record. */
class ControlServerTest : public testing::Test
{
protected:
    ControlServerTest() : mManual(std::make_shared<ManualSource>()), mContext(Sources(), mClock)
    {
        Start();
        int requestId = 0;
        EXPECT_EQ(mContext.Subscribe(7, nullptr, FreeReading, nullptr, requestId), 0);
        EXPECT_EQ(mContext.Subscribe(23, nullptr, FreeReading, nullptr, requestId), 0);
        RunWhileBusy();
    }

    SensorSources Sources() const
    {
        SensorSources sources;
        sources.Assign(ContextItem::HeartRate, SourceKind::Manual, mManual);
        sources.Assign(ContextItem::Activity, SourceKind::Manual, mManual);
        return sources;
    }

    static void FreeReading(int /*error*/, int /*item*/, context_data *data, void * /*userData*/,
                            int /*requestId*/) noexcept
    {
        std::free(data);
    }

    void Start()
    {
        mServer.reset();
        mServer = std::make_unique<ControlServer>(
            mDirectory.Path(), std::make_unique<EchoHandler>(mEvents, mChanges, mTap), mContext,
            mClock);
    }

    std::string Socket() const { return mDirectory / "control.sock"; }

    /** A client whose recording has begun. */
    std::unique_ptr<RawClient> Recorder() const
    {
        auto client = std::make_unique<RawClient>(Socket());
        EXPECT_EQ(client->Ask("record"), "echo record");
        EXPECT_THAT(client->Receive(), HasSubstr("# start_epoch_s: 1769862896\\n"));
        return client;
    }

    /** A client that observes. */
    std::unique_ptr<RawClient> Observer() const
    {
        auto client = std::make_unique<RawClient>(Socket());
        EXPECT_EQ(client->Ask("observe"), "echo observe");
        RunWhileBusy();
        return client;
    }

    /** A client that captures. */
    std::unique_ptr<RawClient> Capturer() const
    {
        auto client = std::make_unique<RawClient>(Socket());
        EXPECT_EQ(client->Ask("capture"), "echo capture");
        return client;
    }

    /** Turns the main loop, at the end of which changes are told. */
    static void EndTurn()
    {
        RunWhileBusy();
        EXPECT_EQ(NextWakeMs(), -1);
    }

    TemporaryDirectory mDirectory;
    ManualClock mClock;
    std::shared_ptr<ManualSource> mManual;
    ContextManager mContext;
    std::vector<std::string> mEvents;
    /** What the status has to tell. */
    std::vector<std::string> mChanges;
    /** Who is told of what crosses the link. */
    LinkSession::Tap mTap;
    std::unique_ptr<ControlServer> mServer;
    StderrCapture mLog;
};

TEST_F(ControlServerTest, SocketIsForTheOwnerAloneAndGoesWithTheServer)
{
    EXPECT_EQ(ModeOf(Socket()), 0600U);
    mServer.reset();
    EXPECT_FALSE(FileExists(Socket()));
}

TEST_F(ControlServerTest, SocketOfAnEarlierRunIsReplaced)
{
    std::filesystem::create_hard_link(Socket(), mDirectory / "left over");
    mServer.reset();
    std::filesystem::rename(mDirectory / "left over", Socket());
    Start();
    EXPECT_EQ(RawClient(Socket()).Ask("hello"), "echo hello");
}

TEST_F(ControlServerTest, APathThatIsTooLongForASocketIsNamed)
{
    const std::string directory = mDirectory / std::string(100, 'd');
    std::filesystem::create_directory(directory);
    try {
        const ControlServer server(
            directory, std::make_unique<EchoHandler>(mEvents, mChanges, mTap), mContext, mClock);
        FAIL() << "no exception";
    } catch (const StartupError &failure) {
        EXPECT_THAT(failure.what(), StartsWith("cannot make the socket " + directory));
        EXPECT_THAT(failure.what(), EndsWith("the system allows 107"));
    }
}

TEST_F(ControlServerTest, EachRequestHasOneReplyOnItsOwnConnection)
{
    const RawClient first(Socket());
    const RawClient second(Socket());

    EXPECT_EQ(first.Ask("one"), "echo one");
    EXPECT_EQ(second.Ask("two"), "echo two");
    EXPECT_EQ(first.Ask("three"), "echo three");
    EXPECT_EQ(second.TryReceive(), std::nullopt);
}

TEST_F(ControlServerTest, RequestOfAClientThatLeavesAtOnceIsServed)
{
    RawClient client(Socket());
    ASSERT_TRUE(client.Send("later"));
    client.Close();

    EXPECT_TRUE(RunUntil([this] { return !mEvents.empty(); }));
    RunWhileBusy();
    EXPECT_EQ(mServer->ClientCount(), 0U);
}

TEST_F(ControlServerTest, ReplyIsSentBeforeWhatItAnnouncesIsDone)
{
    const RawClient client(Socket());
    ASSERT_TRUE(client.Send("later"));
    ASSERT_TRUE(RunUntil([this] { return !mEvents.empty(); }));

    EXPECT_EQ(client.TryReceive(), "told");
}

TEST_F(ControlServerTest, TheNinthClientIsToldThatThereAreEightAndClosed)
{
    std::vector<std::unique_ptr<RawClient>> clients;
    for (std::size_t i = 0; i < ControlServer::kMaxClients; ++i) {
        clients.push_back(std::make_unique<RawClient>(Socket()));
        ASSERT_EQ(clients.back()->Ask("hello"), "echo hello");
    }
    const RawClient ninth(Socket());
    const ErrorOf error(ninth.Receive());
    EXPECT_EQ(error.Code(), "busy");
    EXPECT_EQ(error.Message(), "8 clients are connected, no more are allowed");
    EXPECT_EQ(ninth.Receive(), "end");
    // The main loop's clock is an hour behind: the count of the others is not due yet.
    mClock.mMonotonicUs = g_get_monotonic_time() + 3'600'000'000;
    EXPECT_EQ(ErrorOf(RawClient(Socket()).Receive()).Code(), "busy");
    EXPECT_EQ(ErrorOf(RawClient(Socket()).Receive()).Code(), "busy");

    clients.pop_back();
    EXPECT_EQ(RawClient(Socket()).Ask("hello"), "echo hello");
    const std::string refused = "W platform: control: a client is refused: 8 clients are "
                                "connected, no more are allowed\n";
    EXPECT_EQ(mLog.Take(), refused + refused);
}

TEST_F(ControlServerTest, AMessageThatIsTooLongOrEmptyIsRefusedAndTheConnectionStays)
{
    const RawClient client(Socket());
    EXPECT_EQ(client.Ask(std::string(ControlServer::kMaxRequestBytes, 'a')),
              "echo " + std::string(ControlServer::kMaxRequestBytes, 'a'));

    const ErrorOf tooLong(client.Ask(std::string(65536, 'a')));
    EXPECT_EQ(tooLong.Code(), "bad-message");
    EXPECT_EQ(tooLong.Message(), "the message is too long; at most 8192 bytes are allowed");
    EXPECT_EQ(ErrorOf(client.Ask("")).Message(), "the message is empty; send one JSON object");
    EXPECT_EQ(client.Ask("hello"), "echo hello");
}

TEST_F(ControlServerTest, AFailureInsideIsAReplyAndALogLine)
{
    const RawClient client(Socket());
    EXPECT_EQ(ErrorOf(client.Ask("throw")).Code(), "failed");
    EXPECT_EQ(client.Ask("hello"), "echo hello");
    EXPECT_EQ(mLog.Take(), "E platform: control: broken\n");
}

TEST_F(ControlServerTest, AClientThatDoesNotReadItsRepliesIsDroppedAndOthersAreServed)
{
    const RawClient lazy(Socket());
    const RawClient other(Socket());
    RunWhileBusy();
    ASSERT_EQ(mServer->ClientCount(), 2U);
    for (int request = 0; request < 100 && mServer->ClientCount() == 2; ++request) {
        ASSERT_TRUE(lazy.Send("long"));
        RunWhileBusy();
    }
    EXPECT_EQ(mServer->ClientCount(), 1U);

    EXPECT_EQ(other.Ask("hello"), "echo hello");
    EXPECT_EQ(mLog.Take(), "W platform: control: process " + std::to_string(getpid()) +
                               " does not read its replies and is dropped\n");
}

TEST_F(ControlServerTest, NothingWakesTheLoopWhetherOrNotClientsAreThere)
{
    RunWhileBusy();
    EXPECT_EQ(NextWakeMs(), -1);

    const RawClient client(Socket());
    const auto recorder = Recorder();
    const auto observer = Observer();
    const auto capturer = Capturer();
    EXPECT_EQ(client.Ask("hello"), "echo hello");
    RunWhileBusy();
    EXPECT_EQ(NextWakeMs(), -1);
}

TEST_F(ControlServerTest, WhoCapturesIsToldOfEachPacketWithItsTimeAndDirection)
{
    const std::vector<unsigned char> request{0x12, 0x00, 0x00, 0x03};
    const std::vector<unsigned char> reply{0x14, 0x02, 0xAB, 0x03};
    const auto first = Capturer();
    const auto second = Capturer();
    const auto observer = Observer();

    mClock.mWallMs = 1769862896789;
    mTap({3, true, request});
    mTap({3, false, reply});

    for (const auto &capturer : {&first, &second}) {
        EXPECT_EQ((*capturer)->Receive(),
                  R"({"bytes":"12000003","event":"packet","from":"phone","link":3,"size":4,)"
                  R"("time_us":1769862896789000})");
        EXPECT_EQ((*capturer)->Receive(),
                  R"({"bytes":"1402ab03","event":"packet","from":"watch","link":3,"size":4,)"
                  R"("time_us":1769862896789000})");
    }
    EXPECT_EQ(observer->TryReceive(), std::nullopt);
    EXPECT_EQ(ErrorOf(first->Ask("hello")).Code(), "recording");
}

TEST_F(ControlServerTest, NobodyIsToldOfPacketsWhenNobodyCaptures)
{
    EXPECT_FALSE(mTap);
    auto first = Capturer();
    auto second = Capturer();
    EXPECT_TRUE(mTap);
    first->Close();
    EXPECT_TRUE(RunUntil([this] { return mServer->ClientCount() == 1; }));
    RunWhileBusy();
    EXPECT_TRUE(mTap);
    second->Close();
    EXPECT_TRUE(RunUntil([this] { return mServer->ClientCount() == 0; }));
    RunWhileBusy();
    EXPECT_FALSE(mTap);
}

TEST_F(ControlServerTest, APacketThatNoMessageHoldsIsCutAndHasItsSize)
{
    const auto capturer = Capturer();
    const std::vector<unsigned char> packet(65531, 0x7F);
    mTap({1, true, packet});

    const json message = json::parse(capturer->Receive());
    EXPECT_EQ(message.at("size"), 65531);
    EXPECT_EQ(message.at("bytes").get<std::string>().size(), 2U * 16384);
}

TEST_F(ControlServerTest, WhoCapturesTooSlowlyIsToldHowMuchIsMissingAndGoesOn)
{
    const auto capturer = Capturer();
    const std::vector<unsigned char> packet(16384, 0x7F);
    for (int i = 0; i < 100; ++i) {
        mTap({1, true, packet});
    }
    std::uint64_t taken = 0;
    json message;
    do {
        message = json::parse(capturer->Receive());
        ++taken;
    } while (message.at("event") == "packet");
    EXPECT_EQ(message, json({{"event", "missed"}, {"count", 100 - (taken - 1)}}));
    mTap({1, true, packet});
    EXPECT_EQ(json::parse(capturer->Receive()).at("event"), "packet");
    mServer.reset();
    EXPECT_EQ(capturer->Receive(), R"({"end":"service-ended"})");
}

TEST_F(ControlServerTest, AClientOfAnotherUserIsRefused)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "another user can be played by root only";
    }
    std::filesystem::permissions(mDirectory.Path(), std::filesystem::perms::all);
    std::filesystem::permissions(Socket(), std::filesystem::perms::all);
    constexpr uid_t kNobody = 65534;
    ASSERT_EQ(seteuid(kNobody), 0);
    std::optional<RawClient> client(std::in_place, Socket());
    ASSERT_EQ(seteuid(0), 0);

    EXPECT_EQ(client->Receive(), "end");
    EXPECT_EQ(mLog.Take(), "W platform: control: a client of user 65534 is refused\n");
}

TEST_F(ControlServerTest, LackOfDescriptorsPausesTheSocketAndLosesNoClient)
{
    if (kIsSanitized) {
        GTEST_SKIP() << "the undefined-behaviour sanitizer needs descriptors itself";
    }
    const RawClient waiting(Socket());
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none = {static_cast<rlim_t>(waiting.Fd()) + 1, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    g_main_context_iteration(nullptr, FALSE);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(mServer->ClientCount(), 0U);

    // The pause has long passed on the main loop's clock (ManualClock).
    EXPECT_EQ(waiting.Ask("hello"), "echo hello");
    EXPECT_THAT(mLog.Take(),
                HasSubstr("E platform: control: cannot take a connection: Too many open files\n"));
}

TEST_F(ControlServerTest, ARecordingIsItsHeaderAndARowForEachReading)
{
    const auto client = Recorder();

    mManual->SetHeartRate(72);
    mClock.mMonotonicUs = 1500000;
    mManual->SetHeartRate(73);

    EXPECT_EQ(client->Receive(), HeartRateRow(0, 72));
    EXPECT_EQ(client->Receive(), HeartRateRow(1500, 73));
    EXPECT_EQ(client->TryReceive(), std::nullopt);
}

TEST_F(ControlServerTest, EachRecordingHasItsOwnBeginning)
{
    const auto first = Recorder();
    mClock.mMonotonicUs = 1000000;
    const auto second = Recorder();

    mManual->SetHeartRate(72);

    EXPECT_EQ(first->Receive(), HeartRateRow(1000, 72));
    EXPECT_EQ(second->Receive(), HeartRateRow(0, 72));
}

TEST_F(ControlServerTest, AReadingThatARecordingCannotHoldIsTold)
{
    const auto client = Recorder();
    mManual->SetActivity(4);
    EXPECT_EQ(client->Receive(), R"({"left_out":"activity: 4 is not an activity from 0 to 3"})");
}

TEST_F(ControlServerTest, AConnectionThatRecordsRefusesRequestsAndGoesOn)
{
    const auto client = Recorder();
    EXPECT_EQ(ErrorOf(client->Ask("hello")).Code(), "recording");
    mManual->SetHeartRate(72);
    EXPECT_EQ(client->Receive(), HeartRateRow(0, 72));
}

TEST_F(ControlServerTest, TheEndOfTheServiceEndsTheRecordingAfterItsLastRow)
{
    const auto client = Recorder();
    mManual->SetHeartRate(72);
    mServer.reset();

    EXPECT_EQ(client->Receive(), HeartRateRow(0, 72));
    EXPECT_EQ(client->Receive(), R"({"end":"service-ended"})");
    EXPECT_EQ(client->Receive(), "end");
    mManual->SetHeartRate(73); // nobody listens any more
}

TEST_F(ControlServerTest, ARecordingThatIsReadLateLacksNoRow)
{
    const auto client = Recorder();
    for (int rate = 0; rate < 10000; ++rate) {
        mManual->SetHeartRate(rate);
    }
    for (int rate = 0; rate < 10000; ++rate) {
        ASSERT_EQ(client->Receive(), HeartRateRow(0, rate));
    }
    RunWhileBusy();
    EXPECT_EQ(NextWakeMs(), -1);
    mManual->SetHeartRate(1);
    EXPECT_EQ(client->Receive(), HeartRateRow(0, 1));
}

TEST_F(ControlServerTest, ARecordingThatIsNotReadEndsAfterItsLastWholeRowAndSaysSo)
{
    const auto client = Recorder();
    // The main loop's clock is an hour behind: the time to read the rest does not pass.
    mClock.mMonotonicUs = g_get_monotonic_time() + 3'600'000'000;
    for (int rate = 0; rate < 100000; ++rate) {
        mManual->SetHeartRate(rate);
    }
    int rows = 0;
    std::string message = client->Receive();
    for (; message.starts_with("{\"row\""); message = client->Receive()) {
        ASSERT_THAT(message, HasSubstr("," + std::to_string(rows) + kRest));
        ++rows;
    }
    EXPECT_GT(rows, 10000);
    EXPECT_EQ(ErrorOf(message).Code(), "too-slow");
    EXPECT_EQ(client->Receive(), "end");
    RunWhileBusy();
    EXPECT_EQ(mServer->ClientCount(), 0U);
}

TEST_F(ControlServerTest, ARecorderThatNeverReadsIsDroppedInTheEnd)
{
    const auto client = Recorder();
    const RawClient other(Socket());
    for (int rate = 0; rate < 100000; ++rate) {
        mManual->SetHeartRate(rate);
    }
    // The time that it has is over at once (ManualClock).
    EXPECT_TRUE(RunUntil([this] { return mServer->ClientCount() == 1; }));
    EXPECT_EQ(other.Ask("hello"), "echo hello");
}

TEST_F(ControlServerTest, ARecorderThatGoesInTheMiddleLeavesTheOthersTheirRows)
{
    auto going = Recorder();
    const auto staying = Recorder();
    going.reset();
    mManual->SetHeartRate(72); // before the server has heard of the end

    EXPECT_EQ(staying->Receive(), HeartRateRow(0, 72));
    RunWhileBusy();
    EXPECT_EQ(mServer->ClientCount(), 1U);
    mManual->SetHeartRate(73);
    EXPECT_EQ(staying->Receive(), HeartRateRow(0, 73));
}

TEST_F(ControlServerTest, WhatARecordingKeepsIsLetGoAtItsEnd)
{
    auto client = Recorder();
    RunWhileBusy();
    EXPECT_THAT(mEvents, testing::IsEmpty());
    client.reset();
    RunWhileBusy();
    EXPECT_THAT(mEvents, testing::ElementsAre("let go"));
}

TEST_F(ControlServerTest, AllWhoObserveHearOfReadingsAndChangesInTheirOrder)
{
    const auto first = Observer();
    const auto second = Observer();
    const RawClient other(Socket());
    mChanges = {"changed"};
    mManual->SetHeartRate(72);
    mChanges = {"later"};
    EndTurn();

    for (const auto *client : {first.get(), second.get()}) {
        EXPECT_EQ(client->Receive(), "changed");
        EXPECT_EQ(json::parse(client->Receive()), json({{"event", "reading"},
                                                        {"time", "2026-01-31T12:34:56.789Z"},
                                                        {"item", "heart_rate"},
                                                        {"values", {{"hrm/heart_rate", 72}}}}));
        EXPECT_EQ(client->Receive(), "later");
        EXPECT_EQ(client->TryReceive(), std::nullopt);
    }
    EXPECT_EQ(other.Ask("hello"), "echo hello");
    EXPECT_EQ(mLog.Take(), "");
}

TEST_F(ControlServerTest, WhatHasChangedBeforeSomebodyObservesIsInTheReply)
{
    mChanges = {"long ago"};
    const auto first = Observer();
    mChanges = {"before the second"};
    const auto second = Observer();

    EXPECT_EQ(first->Receive(), "before the second");
    EXPECT_EQ(first->TryReceive(), std::nullopt);
    EXPECT_EQ(second->TryReceive(), std::nullopt);
}

TEST_F(ControlServerTest, WhereNobodyObservesAnyMoreNothingIsCompared)
{
    auto client = Observer();
    client.reset();
    RunWhileBusy();
    mChanges = {"unheard"};
    mManual->SetHeartRate(72);
    EndTurn();
    EXPECT_EQ(mChanges.size(), 1U);
}

TEST_F(ControlServerTest, AConnectionThatObservesRefusesRequestsAndGoesOn)
{
    const auto client = Observer();
    EXPECT_EQ(ErrorOf(client->Ask("hello")).Code(), "recording");
    mChanges = {"changed"};
    EndTurn();
    EXPECT_EQ(client->Receive(), "changed");
}

TEST_F(ControlServerTest, ThoseWhoObserveLeaveAPlaceForRequests)
{
    std::vector<std::unique_ptr<RawClient>> observers;
    for (std::ptrdiff_t i = 0; i < ControlServer::kMaxStreams; ++i) {
        observers.push_back(Observer());
    }
    const RawClient client(Socket());
    EXPECT_EQ(ErrorOf(client.Ask("observe")).Code(), "busy");
    EXPECT_EQ(client.Ask("hello"), "echo hello");
}

TEST_F(ControlServerTest, OneWhoReadsTooSlowlyIsToldHowManyMessagesItHasMissed)
{
    const auto slow = Observer();
    const auto quick = Observer();
    constexpr int kAll = 100000;
    int heard = 0;
    for (int rate = 0; rate < kAll; ++rate) {
        mManual->SetHeartRate(rate);
        while (quick->TryReceive()) {
            ++heard;
        }
    }
    EXPECT_EQ(heard, kAll);

    int received = 0;
    std::string message = slow->Receive();
    for (; json::parse(message).at("event") == "reading"; message = slow->Receive()) {
        ASSERT_EQ(json::parse(message).at("values").at("hrm/heart_rate"), received);
        ++received;
    }
    EXPECT_GT(received, 10000 / 2);
    EXPECT_EQ(json::parse(message), json({{"event", "missed"}, {"count", kAll - received}}));
    EndTurn();
    mManual->SetHeartRate(1);
    EXPECT_EQ(json::parse(slow->Receive()).at("event"), "reading");
    EXPECT_EQ(mServer->ClientCount(), 2U);
    EXPECT_EQ(mLog.Take(), "");
}

TEST_F(ControlServerTest, TheEndOfTheServiceIsToldToThoseWhoObserve)
{
    const auto client = Observer();
    mServer.reset();
    EXPECT_EQ(client->Receive(), R"({"end":"service-ended"})");
    EXPECT_EQ(client->Receive(), "end");
}

} // namespace ParvanePlatform
