#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

#include "Flood.h"
#include "LoopTimes.h"
#include "Requests.h"
#include "ServiceFixture.h"
#include "Setting.h"

// What a host of the service's own user can do to it, and what others can. The floods last 2 seconds;
// PARVANE_HOSTILE_SECONDS makes them longer and has their rate and answers held to what is promised,
// PARVANE_HOSTILE_STALL_MS is the longest time for which the main loop may be busy with one turn,
// PARVANE_HOSTILE_PROGRAM another build of the service.

using Parvane::Setting;
using Parvane::Request::kActivityStopped;
using Parvane::Request::kListSensors;
using Parvane::Request::kStopActivity;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

const std::string kLinkIsUp = R"({"request":"link","state":"up"})";
const std::string kStatus = R"({"request":"status"})";

/** As many as the control socket takes at a time. */
constexpr std::size_t kControlClients = 8;

constexpr int kFloodPerSecond = 100000;
constexpr std::size_t kLongestMessage = 65536;
/** Generous: whatever else the machine is kept busy with, and in an instrumented service. */
constexpr int kStallMs = 1000;
constexpr int kSeconds = 2;
/** KiB by which the service may have grown when the hostile host has gone. */
constexpr int64_t kGrowthKiB = 1024;
/**
 * KiB by which what is resident may have grown meanwhile: what waits for a host waits in the kernel's
 * buffers. Most of it is code of the libraries that nothing before has run.
 */
constexpr int64_t kPeakGrowthKiB = 2048;
#if defined(__SANITIZE_ADDRESS__) // which keeps what is freed, and slows the flood down
constexpr bool kIsInstrumented = true;
#else
constexpr bool kIsInstrumented = false;
#endif
constexpr int kVisits = 500;

Bytes BytesOf(const std::string &text)
{
    return {text.begin(), text.end()};
}

double Milliseconds(int64_t nanoseconds)
{
    return static_cast<double>(nanoseconds) / 1e6;
}

enum class Visit { Refused, Closed, Served };

/** What becomes of another user's connection that asks for the list. */
Visit VisitAsNobody(const std::filesystem::path &socketPath)
{
    constexpr uid_t kNobody = 65534;
    const std::string path = socketPath.string();
    const pid_t child = fork();
    if (child == 0) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
        if (setgid(kNobody) != 0 || setuid(kNobody) != 0 ||
            connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
            _exit(static_cast<int>(Visit::Refused));
        }
        send(fd, kListSensors.data(), kListSensors.size(), MSG_NOSIGNAL);
        char byte = 0;
        _exit(static_cast<int>(recv(fd, &byte, 1, 0) > 0 ? Visit::Served : Visit::Closed));
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? static_cast<Visit>(WEXITSTATUS(status)) : Visit::Served;
}

/** What the service has of the machine. */
struct Footprint
{
    int64_t mOwnKiB = 0;
    /** The most that was resident at a time, programs and libraries included. */
    int64_t mPeakKiB = 0;
    std::size_t mDescriptors = 0;
};

/** Whether a flood is long enough for its rate to say something. */
bool IsRateAsserted()
{
    return !kIsInstrumented && std::getenv("PARVANE_HOSTILE_SECONDS") != nullptr;
}

} // namespace

class HostileTest : public ServiceFixture
{
protected:
    void SetUp() override
    {
        const std::filesystem::path times = mFolder.Path() / "times";
        WriteFile(times, std::string(sizeof(LoopTimes), '\0'));
        const int fd = open(times.c_str(), O_RDWR | O_CLOEXEC);
        void *const mapped =
            mmap(nullptr, sizeof(LoopTimes), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        ASSERT_NE(mapped, MAP_FAILED);
        mTimes = static_cast<LoopTimes *>(mapped);

        Environment environment = BaseEnvironment();
        environment["PARVANE_TRACE"] =
            WriteRecording({"0,72,0,0,0,,,,2,", "100,72,10,10,0,,,,3,", "200,72,20,20,0,,,,1,"});
        environment["LOOP_TIMES"] = times.string();
        environment["ASAN_OPTIONS"] += ":verify_asan_link_order=0";
        const char *const program = std::getenv("PARVANE_HOSTILE_PROGRAM");
        mService = std::make_unique<Process>(
            std::vector<std::string>{"/bin/sh", "-c", R"(LD_PRELOAD="$1" exec "$0" 2>>"$2")",
                                     program == nullptr ? PARVANE_PROGRAM : program,
                                     LOOP_WATCH_LIBRARY, LogPath()},
            environment, mFolder.Path());
        ExpectHostIsServed();
        ForgetPeak();
        mBefore = Measure();
        *mTimes = {};
    }

    void TearDown() override
    {
        if (IsSkipped() || mTimes == nullptr) {
            return;
        }
        ExpectHostIsServed();
        ExpectNothingIsLeft();
        EXPECT_EQ(StopService(), 0);
        munmap(mTimes, sizeof(LoopTimes));
    }

    /**
     * Where the service logs. Nowhere: a flood is thousands of lines a second, and a disk that does not
     * keep up with them would hold the main loop up in the host's place.
     */
    virtual std::string LogPath() const { return "/dev/null"; }

    std::filesystem::path ControlPath() const { return mRunDirectory / "control.sock"; }

    /** A well-behaved host gets what it asks for; other packets, pushed to it, may come between. */
    void ExpectHostIsServed() const
    {
        const Host host(LinkPath());
        host.Send(kListSensors);
        std::size_t packets = 0;
        host.Send(kStopActivity);
        while (const auto packet = host.Receive()) {
            packets += (*packet)[0] == 0x81 ? 1U : 0U;
            if (*packet == kActivityStopped) {
                break;
            }
        }
        EXPECT_EQ(packets, 5U);
    }

    /** Lets the peak begin anew, at what is resident now: starting up took more than running does. */
    void ForgetPeak() const
    {
        WriteFile("/proc/" + std::to_string(mService->Pid()) + "/clear_refs", "5");
    }

    Footprint Measure() const
    {
        Footprint footprint;
        const std::string process = "/proc/" + std::to_string(mService->Pid());
        std::istringstream status(ReadFile(process + "/status"));
        for (std::string word; status >> word;) {
            if (word == "RssAnon:") {
                status >> footprint.mOwnKiB;
            } else if (word == "VmHWM:") {
                status >> footprint.mPeakKiB;
            }
        }
        for ([[maybe_unused]] const auto &descriptor :
             std::filesystem::directory_iterator(process + "/fd")) {
            ++footprint.mDescriptors;
        }
        return footprint;
    }

    /**
     * Memory and descriptors are those of before, when the connections have been taken back, and
     * memory was not much more in between.
     */
    void ExpectNothingIsLeft()
    {
        EXPECT_TRUE(Eventually([this] { return Measure().mDescriptors <= mBefore.mDescriptors; }))
            << Measure().mDescriptors << " descriptors, before " << mBefore.mDescriptors;
        const Footprint after = Measure();
        EXPECT_GT(mBefore.mPeakKiB, 0);
        if (!kIsInstrumented) {
            EXPECT_LE(after.mOwnKiB, mBefore.mOwnKiB + kGrowthKiB);
            EXPECT_LE(after.mPeakKiB, mBefore.mPeakKiB + kPeakGrowthKiB);
        }
        std::cout << mBefore.mOwnKiB << " KiB of its own before, " << after.mOwnKiB
                  << " KiB after; " << mBefore.mPeakKiB << " KiB resident before, at most "
                  << after.mPeakKiB << " KiB meanwhile" << std::endl;
    }

    /** Floods the service, and meanwhile asks it over the control socket, as somebody else would. */
    FloodResult RunFlood(const Bytes &request, bool reads)
    {
        const Flood flood(LinkPath());
        const Host viewer(ControlPath());
        const std::chrono::seconds time(Setting("PARVANE_HOSTILE_SECONDS", kSeconds));
        FloodResult result;
        bool hasEnded = false;
        std::thread host([&] {
            result = flood.Run(request, kFloodPerSecond, time, reads);
            std::atomic_ref(hasEnded).store(true);
        });
        std::chrono::nanoseconds longest(0);
        while (!std::atomic_ref(hasEnded).load()) {
            const auto begin = std::chrono::steady_clock::now();
            const bool isAnswered = viewer.Ask(BytesOf(kLinkIsUp), 1).size() == 1;
            EXPECT_TRUE(isAnswered);
            longest = std::max<std::chrono::nanoseconds>(longest,
                                                         std::chrono::steady_clock::now() - begin);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        host.join();
        Report(result, longest);
        return result;
    }

    void Report(const FloodResult &result, std::chrono::nanoseconds longestAnswer) const
    {
        const double seconds = result.mTime.count();
        std::cout << std::fixed << std::setprecision(2) << result.mSent << " requests in "
                  << seconds << " s, " << static_cast<double>(result.mSent) / seconds
                  << " per second; " << result.mReceived << " answers\n"
                  << mTimes->mTurns << " turns of the main loop, the longest "
                  << Milliseconds(mTimes->mLongestOwn) << " ms, with other programs in between "
                  << Milliseconds(mTimes->mLongest) << " ms, the most work "
                  << Milliseconds(mTimes->mMostWork) << " ms; another client was answered within "
                  << Milliseconds(longestAnswer.count()) << " ms" << std::endl;
    }

    /** No turn of the main loop has been long; the processors may have run others meanwhile. */
    void ExpectNoStall() const
    {
        EXPECT_GT(mTimes->mTurns, 0);
        EXPECT_LT(Milliseconds(mTimes->mLongestOwn), Setting("PARVANE_HOSTILE_STALL_MS", kStallMs));
    }

    LoopTimes *mTimes = nullptr;
    Footprint mBefore;
};

TEST_F(HostileTest, FloodOfRequestsIsAnsweredAndHoldsNobodyUp)
{
    const FloodResult result = RunFlood(kStopActivity, true);

    EXPECT_FALSE(result.mWasClosed);
    // A host whose turn comes late may let the link run full, which loses answers.
    EXPECT_GT(result.mReceived, result.mSent * 9 / 10);
    EXPECT_GT(result.mSent, 100);
    if (IsRateAsserted()) {
        EXPECT_GE(static_cast<double>(result.mSent), 0.9 * kFloodPerSecond * result.mTime.count());
        EXPECT_EQ(result.mReceived, result.mSent);
    }
    ExpectNoStall();
}

TEST_F(HostileTest, FloodOfTheLongestAnswersHoldsNobodyUp)
{
    const FloodResult result = RunFlood(kListSensors, true);

    EXPECT_FALSE(result.mWasClosed);
    EXPECT_GT(result.mReceived, 100);
    ExpectNoStall();
}

TEST_F(HostileTest, FloodOfAHostThatNeverReadsHoldsNobodyUp)
{
    const FloodResult result = RunFlood(kListSensors, false);

    EXPECT_FALSE(result.mWasClosed);
    EXPECT_GT(result.mSent, 100);
    ExpectNoStall();
}

TEST_F(HostileTest, FloodOfTheLargestMessagesHoldsNobodyUp)
{
    const FloodResult result = RunFlood(Bytes(kLongestMessage, 0x01), true);

    EXPECT_FALSE(result.mWasClosed);
    EXPECT_GT(result.mReceived, 10);
    ExpectNoStall();
}

TEST_F(HostileTest, HostsThatNeverReadAndGoLeaveNothingBehind)
{
    for (int visit = 0; visit < kVisits / 10; ++visit) {
        const Host host(LinkPath());
        for (int request = 0; request < 400 && host.TrySend(kListSensors); ++request) {
        }
    }
}

TEST_F(HostileTest, ClientsOfTheControlSocketThatNeverReadMakeRoomForOneThatDoes)
{
    std::array<std::unique_ptr<Host>, kControlClients> clients;
    for (std::unique_ptr<Host> &client : clients) {
        client = std::make_unique<Host>(ControlPath());
        const auto sendMany = [&client] {
            for (int request = 0; request < 1000; ++request) {
                client->Send(BytesOf(kStatus)); // waits for room until the connection ends
            }
        };
        EXPECT_THROW(sendMany(), std::system_error);
    }
    EXPECT_TRUE(Eventually([this] {
        const auto reply = Host(ControlPath()).Ask(BytesOf(kLinkIsUp), 1);
        return reply.size() == 1 && reply[0] == BytesOf(R"({"ok":true,"version":1})");
    }));
}

TEST_F(HostileTest, ConnectsAndDropsInALoopLeaveNothingBehind)
{
    for (int visit = 0; visit < kVisits; ++visit) {
        const Host host(LinkPath());
        if (visit % 3 == 0) {
            host.TrySend(
                {static_cast<uint8_t>(visit), 0x00, 0x00, static_cast<uint8_t>(visit % 5)});
        }
    }
}

TEST_F(HostileTest, CrowdThatPushesInBesideAHostIsSentAwayAndTheHostNoticesNothing)
{
    const Host host(LinkPath());
    ASSERT_THAT(host.Ask(kStopActivity, 1), ElementsAre(kActivityStopped));
    for (int round = 0; round < 10; ++round) {
        std::array<std::unique_ptr<Host>, 20> crowd;
        for (std::unique_ptr<Host> &guest : crowd) {
            guest = std::make_unique<Host>(LinkPath());
        }
        for (const auto &guest : crowd) {
            EXPECT_TRUE(guest->IsClosed());
        }
        EXPECT_THAT(host.Ask(kStopActivity, 1), ElementsAre(kActivityStopped));
    }
}

TEST_F(HostileTest, EmptyLargestAndOverlongMessagesAreBorne)
{
    const Host host(LinkPath());
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, kLongestMessage - 1,
                                   kLongestMessage, kLongestMessage + 1, 2 * kLongestMessage}) {
        SCOPED_TRACE(size);
        host.Send(Bytes(size, 0x00));
        EXPECT_THAT(host.Ask(kStopActivity, 1), ElementsAre(kActivityStopped));
    }
}

TEST_F(HostileTest, EveryFirstByteAtEveryLengthUpTo64IsBorne)
{
    for (std::size_t length = 0; length <= 64; ++length) {
        SCOPED_TRACE(length);
        const Host host(LinkPath());
        for (int first = 0; first < (length == 0 ? 1 : 256); ++first) {
            Bytes message(length, static_cast<uint8_t>(length + static_cast<std::size_t>(first)));
            if (length > 0) {
                message[0] = static_cast<uint8_t>(first);
            }
            if (length > 3 && first % 2 == 0) {
                message[3] = static_cast<uint8_t>(first / 2 % 6); // often a sensor that exists
            }
            host.Send(message);
            while (host.Receive(std::chrono::milliseconds(0))) {
            }
        }
        host.Send({0x34, 0x00, 0x00, 0x04}); // a stop whose answer is no other's
        bool isAnswered = false;
        while (!isAnswered) {
            const auto packet = host.Receive();
            ASSERT_TRUE(packet.has_value());
            isAnswered = *packet == Bytes{0x34, 0x02, 0x00, 0x04};
        }
    }
}

/** Users for whom the service is not there. */
class OtherUserTest : public HostileTest
{
protected:
    void SetUp() override
    {
        if (geteuid() != 0) {
            GTEST_SKIP() << "only root can become another user";
        }
        HostileTest::SetUp();
    }

    std::string LogPath() const override { return (mFolder.Path() / "service.log").string(); }

    /** Takes away what keeps others out before the service has a look at them. */
    void OpenToAll() const
    {
        for (const auto &folder : {mFolder.Path(), mRunDirectory}) {
            chmod(folder.c_str(), 0711);
        }
        for (const auto &path : {LinkPath(), ControlPath()}) {
            chmod(path.c_str(), 0666);
        }
    }
};

TEST_F(OtherUserTest, AnotherUserIsKeptOutByTheModeOfTheSocket)
{
    EXPECT_EQ(VisitAsNobody(LinkPath()), Visit::Refused);
    EXPECT_EQ(VisitAsNobody(ControlPath()), Visit::Refused);
}

TEST_F(OtherUserTest, AnotherUserForWhomTheSocketIsOpenIsClosedAtOnce)
{
    OpenToAll();
    for (const auto &path : {LinkPath(), ControlPath()}) {
        for (int visit = 0; visit < 20; ++visit) {
            ASSERT_EQ(VisitAsNobody(path), Visit::Closed) << path;
        }
    }
    const std::string log = ReadFile(LogPath());
    EXPECT_THAT(log, HasSubstr("a host of user 65534 is refused"));
    EXPECT_THAT(log, HasSubstr("a client of user 65534 is refused"));
}

TEST_F(OtherUserTest, AnotherUsersFloodOfConnectionsHoldsNoHostUp)
{
    OpenToAll();
    const Host host(LinkPath());
    std::thread others([this] {
        for (int visit = 0; visit < 100; ++visit) {
            EXPECT_EQ(VisitAsNobody(LinkPath()), Visit::Closed);
        }
    });
    for (int request = 0; request < 1000; ++request) {
        EXPECT_THAT(host.Ask(kStopActivity, 1), ElementsAre(kActivityStopped));
    }
    others.join();
}
