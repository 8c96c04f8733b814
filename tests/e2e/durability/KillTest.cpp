#include <chrono>
#include <cmath>
#include <csignal>
#include <iostream>
#include <random>
#include <string>
#include <thread>

#include "ServiceFixture.h"
#include "Setting.h"
#include "StoredSteps.h"

using Parvane::Setting;

namespace {

constexpr int kSeed = 20260131;
/** A new state after so many kills, */
constexpr int kKillsOfAState = 100;
/** and long before the totals leave the whole numbers that a push can carry. */
constexpr int64_t kLargeTotal = 8'000'000;
/** 2026-01-31 00:00 UTC: a day that does not end before the test. */
constexpr int64_t kMidnight = 1769817600;
constexpr int kRows = 5000;
constexpr const char *kRowsPerSecond = "1000";
constexpr uint8_t kPedometer = 2;
/** How often a run of many kills tells where it is. */
constexpr int kKillsOfAReport = 1000;

const std::string kStatusRequest = R"({"request":"status"})";
const std::string kRecordRequest = R"({"request":"record"})";

/** Everything that a host can ask for but steps, which would count the newest reading once more. */
const std::vector<Bytes> kRequests = {
    {0x01, 0x00, 0x00, 0x00},       // the list
    {0x02, 0x00, 0x00, 0x01},       // activity, once
    {0x03, 0x00, 0x00, 0x01, 0x00}, // activity, from now on
    {0x04, 0x00, 0x00, 0x01},       // no more of it
    {0x02, 0x00, 0x00, 0x03},       // heart rate
    {0x02, 0x00, 0x00, 0x04},       // worn state
    {0x0F, 0xFF},                   // nothing that exists
};

/** The moments at which a service is killed. */
enum class Moment { AtAPacket, UnderLoad, WhileItStarts, WhileItEnds };

Moment ChooseMoment(std::mt19937 &random)
{
    switch (random() % 8) {
    case 0:
        return Moment::WhileItStarts;
    case 1:
        return Moment::WhileItEnds;
    case 2:
    case 3:
    case 4:
        return Moment::UnderLoad;
    default:
        return Moment::AtAPacket;
    }
}

} // namespace

/**
 * A service that is killed while it pushes steps, a thousand readings a second, and started again:
 * under requests of its host, of a client that looks at its status and of one that records; at the
 * arrival of a packet, at any other moment, before it serves, and while it ends in order.
 *
 * Which total belongs to which time is known beforehand. The clock shows the row of the recording, in
 * seconds after the time that was stored before the run, and each row counts one step more. The
 * day's total takes the steps since the subscription with each reading, so that the reading that is
 * n rows after the first one of its run has added 1 + 2 + ... + n to the total before.
 *
 * So after each kill it can be told of what is stored that it is a total of this run with the time
 * that belongs to it, the last one that the host has got or a newer one; that SQLite finds nothing
 * wrong with the file; and, by the next run, that the service starts on it and goes on from there.
 */
class KillTest : public ServiceFixture
{
protected:
    /** A state in which the host has asked for steps once; `mBefore` is what is stored in it. */
    void BeginState()
    {
        mService.reset();
        std::filesystem::remove_all(mStateDirectory);
        RemoveOutput();
        StartWithClock(kMidnight, WriteRecording({"0,,0,0,0,,,,,"}));
        const Host host(LinkPath());
        host.Send({0x02, 0x00, 0x00, 0x02});
        ASSERT_TRUE(host.Receive().has_value());
        ASSERT_EQ(StopService(), 0);
        mBefore = StoredSteps::Read(mStateDirectory, mFolder.Path());
        ASSERT_EQ(mBefore.mIntegrity, "ok");
        ASSERT_GT(mBefore.mTime, kMidnight);
        mRecording = WriteRecording(Rows());
    }

    /** Removes what the services so far have logged. */
    void RemoveOutput() const
    {
        for (const auto &entry : std::filesystem::directory_iterator(mFolder.Path())) {
            if (entry.path().extension() == ".err" || entry.path().extension() == ".out") {
                std::filesystem::remove(entry.path());
            }
        }
    }

    static std::vector<std::string> Rows()
    {
        std::vector<std::string> rows;
        rows.reserve(kRows);
        for (int row = 0; row < kRows; ++row) {
            rows.push_back(std::to_string(row * 1000) + ",72," + std::to_string(row) + ",,,,,," +
                           std::to_string(row / 100 % 4) + ",");
        }
        return rows;
    }

    void StartWithClock(int64_t start, const std::string &recording)
    {
        const std::string options = BaseEnvironment()["ASAN_OPTIONS"];
        StartService({{"PARVANE_TRACE", recording},
                      {"PARVANE_SPEED", kRowsPerSecond},
                      {"READING_CLOCK_START", std::to_string(start)},
                      {"LD_PRELOAD", READING_CLOCK_LIBRARY},
                      {"ASAN_OPTIONS", options + ":verify_asan_link_order=0"}});
    }

    /**
     * The place of a total in this run: 0 for the first reading. The total and its time belong
     * together when they agree on the row of that first one.
     */
    void Place(int64_t total, int64_t time, int64_t &reading)
    {
        const int64_t added = total - mBefore.mTotal;
        ASSERT_GE(added, 0);
        reading = static_cast<int64_t>(std::sqrt(static_cast<double>(2 * added)));
        ASSERT_EQ(reading * (reading + 1) / 2, added) << "no total of this run";
        const int64_t firstTime = time - reading;
        ASSERT_GT(firstTime, mBefore.mTime);
        mFirstTime = mFirstTime == 0 ? firstTime : mFirstTime;
        ASSERT_EQ(firstTime, mFirstTime) << "value and time of different readings";
    }

    /** Takes one push of this run: total and time belong together, and it is newer than the last. */
    void TakePush(const Bytes &packet)
    {
        ASSERT_EQ(packet.size(), kReadingSize);
        const auto start = static_cast<uint32_t>(mBefore.mTime * 1000);
        const uint32_t sinceMs = TimeOf(packet) - start;
        ASSERT_EQ(sinceMs % 1000, 0U);
        int64_t reading = 0;
        ASSERT_NO_FATAL_FAILURE(
            Place(static_cast<int64_t>(ValueOf(packet)), mBefore.mTime + sinceMs / 1000, reading));
        ASSERT_GT(reading, mLastPushed);
        mLastPushed = reading;
    }

    /** Takes a packet of this run; a reply to a request says nothing of steps. */
    void TakePacket(const Bytes &packet)
    {
        if (IsReadingOf(packet, kPedometer)) {
            ASSERT_NO_FATAL_FAILURE(TakePush(packet));
        }
    }

    void AwaitPush(const Host &host)
    {
        std::optional<Bytes> packet;
        // Asked without a pause, so that the kill comes as close behind the packet as it can.
        ASSERT_TRUE(WithoutPause([&] {
            packet = host.Receive(kAtOnce);
            return packet && IsReadingOf(*packet, kPedometer);
        }));
        ASSERT_NO_FATAL_FAILURE(TakePush(*packet));
    }

    template <typename Condition>
    static bool WithoutPause(Condition condition)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
        }
        return true;
    }

    static std::chrono::microseconds UpTo(std::mt19937 &random, unsigned most)
    {
        return std::chrono::microseconds(random() % most);
    }

    /** One run: from the start of the service to its death, and what the host has got of it. */
    void RunAndKill(std::mt19937 &random)
    {
        mLastPushed = -1;
        mFirstTime = 0;
        StartWithClock(mBefore.mTime, mRecording);
        const Moment moment = ChooseMoment(random);
        if (moment == Moment::WhileItStarts) {
            std::this_thread::sleep_for(UpTo(random, kStartUs));
            Kill();
        } else {
            ASSERT_NO_FATAL_FAILURE(ServeAndKill(random, moment));
        }
    }

    /** The part of a run in which the service has a host. */
    void ServeAndKill(std::mt19937 &random, Moment moment)
    {
        const Host host(LinkPath());
        const Host viewer(mRunDirectory / "control.sock");
        const Host recorder(mRunDirectory / "control.sock");
        recorder.TrySend(Bytes(kRecordRequest.begin(), kRecordRequest.end()));
        ASSERT_NO_FATAL_FAILURE(AwaitPush(host));
        if (moment == Moment::AtAPacket) {
            for (auto more = random() % 8; more > 0; --more) {
                host.TrySend(kRequests[random() % kRequests.size()]);
                ASSERT_NO_FATAL_FAILURE(AwaitPush(host));
            }
        } else {
            ASSERT_NO_FATAL_FAILURE(LoadFor(UpTo(random, 30000), random, host, viewer, recorder));
        }
        if (moment == Moment::WhileItEnds) {
            mService->Signal(SIGTERM);
            std::this_thread::sleep_for(UpTo(random, kEndUs));
        }
        Kill();
        while (const auto packet = host.Receive(kAtOnce)) {
            ASSERT_NO_FATAL_FAILURE(TakePacket(*packet));
        }
    }

    /** Requests of all three clients without a pause, more than the service can answer in the time. */
    void LoadFor(std::chrono::microseconds time, std::mt19937 &random, const Host &host,
                 const Host &viewer, const Host &recorder)
    {
        const auto end = std::chrono::steady_clock::now() + time;
        while (std::chrono::steady_clock::now() < end) {
            host.TrySend(kRequests[random() % kRequests.size()]);
            viewer.TrySend(Bytes(kStatusRequest.begin(), kStatusRequest.end()));
            for (int i = 0; i < kPacketsOfATurn; ++i) {
                const auto packet = host.Receive(kAtOnce);
                if (!packet) {
                    break;
                }
                ASSERT_NO_FATAL_FAILURE(TakePacket(*packet));
            }
            viewer.Receive(kAtOnce);
            recorder.Receive(kAtOnce);
        }
    }

    /** Kills the service; one that has been told to end may be quicker. */
    void Kill()
    {
        mService->Signal(SIGKILL);
        const int status = mService->WaitForEnd().value_or(-1);
        ASSERT_TRUE(status == -SIGKILL || status == 0) << status;
    }

    void CheckWhatIsStored()
    {
        const StoredSteps stored = StoredSteps::Read(mStateDirectory, mFolder.Path());
        ASSERT_EQ(stored.mIntegrity, "ok");
        int64_t reading = -1;
        if (mLastPushed == -1 && stored.mTime == mBefore.mTime) {
            // Killed before its first reading.
            ASSERT_EQ(stored.mTotal, mBefore.mTotal);
            ++mWithoutReading;
            return;
        }
        ASSERT_NO_FATAL_FAILURE(Place(stored.mTotal, stored.mTime, reading));
        ASSERT_GE(reading, mLastPushed) << "the host has seen more than is stored";
        mNewer += reading > mLastPushed ? 1 : 0;
        for (const auto &entry : std::filesystem::directory_iterator(mStateDirectory)) {
            ASSERT_EQ(entry.path().string().find(".corrupt-"), std::string::npos) << entry.path();
        }
        mBefore = stored;
    }

    static constexpr std::chrono::milliseconds kAtOnce{0};
    /** A start and the first readings take about as long; so does an orderly end. */
    static constexpr unsigned kStartUs = 25000;
    static constexpr unsigned kEndUs = 4000;
    static constexpr int kPacketsOfATurn = 8;

    std::string mRecording;
    StoredSteps mBefore;
    /** Place of the last reading that the host has got in this run; -1 for none. */
    int64_t mLastPushed = -1;
    /** The time of this run's first reading, as the first push that has come tells it. */
    int64_t mFirstTime = 0;
    /** Runs in which something was stored that the host had not got yet. */
    int mNewer = 0;
    /** Runs that came to no reading. */
    int mWithoutReading = 0;
};

TEST_F(KillTest, WhatTheHostHasSeenIsStoredWholeAfterEveryKill)
{
    const int seed = Setting("PARVANE_KILL_SEED", kSeed);
    const int kills = Setting("PARVANE_KILLS", KILLS_BY_DEFAULT);
    std::cout << kills << " kills, PARVANE_KILL_SEED=" << seed << std::endl;
    std::mt19937 random(static_cast<unsigned>(seed));
    const auto begin = std::chrono::steady_clock::now();
    for (int kill = 0; kill < kills; ++kill) {
        SCOPED_TRACE("kill " + std::to_string(kill));
        if (kill % kKillsOfAState == 0 || mBefore.mTotal > kLargeTotal) {
            ASSERT_NO_FATAL_FAILURE(BeginState());
        }
        ASSERT_NO_FATAL_FAILURE(RunAndKill(random));
        ASSERT_NO_FATAL_FAILURE(CheckWhatIsStored());
        if ((kill + 1) % kKillsOfAReport == 0) {
            const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - begin;
            std::cout << kill + 1 << " kills, " << static_cast<int>(passed.count()) << " s"
                      << std::endl;
        }
    }
    std::cout << "after " << mNewer << " of them more was stored than the host had got, before "
              << mWithoutReading << " of them there was no reading" << std::endl;
}
