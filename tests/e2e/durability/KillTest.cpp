#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>
#include <thread>

#include "ServiceFixture.h"
#include "StoredSteps.h"

namespace {

constexpr unsigned kSeed = 20260131;
/** A new state after so many kills, */
constexpr int kKillsOfAState = 100;
/** and long before the totals leave the whole numbers that a push can carry. */
constexpr int64_t kLargeTotal = 8'000'000;
/** 2026-01-31 00:00 UTC: a day that does not end before the test. */
constexpr int64_t kMidnight = 1769817600;
constexpr int kRows = 5000;
constexpr const char *kRowsPerSecond = "1000";
constexpr std::size_t kReadingSize = 18;

unsigned NumberFrom(const char *variable, unsigned otherwise)
{
    const char *const text = std::getenv(variable);
    return text == nullptr || *text == '\0'
               ? otherwise
               : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}

/** The time that a reading packet carries: milliseconds, modulo 2^32. */
uint32_t TimeOf(const Bytes &packet)
{
    uint32_t time = 0;
    for (std::size_t i = 9; i < 13; ++i) {
        time = time << 8U | packet.at(i);
    }
    return time;
}

} // namespace

/**
 * A service that is killed while it pushes steps, a thousand readings a second, and started again.
 *
 * Which total belongs to which time is known beforehand. The clock shows the row of the recording, in
 * seconds after the time that was stored before the run, and each row counts one step more. The
 * day's total takes the steps since the subscription with each reading, so that the reading that is
 * n rows after the first one of its run has added 1 + 2 + ... + n to the total before.
 */
class KillTest : public ServiceFixture
{
protected:
    /** A state in which the host has asked for steps once; `mBefore` is what is stored in it. */
    void BeginState()
    {
        std::filesystem::remove_all(mStateDirectory);
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

    static std::vector<std::string> Rows()
    {
        std::vector<std::string> rows;
        rows.reserve(kRows);
        for (int row = 0; row < kRows; ++row) {
            rows.push_back(std::to_string(row * 1000) + ",," + std::to_string(row) + ",,,,,,,");
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

    void TakeNextPush(const Host &host)
    {
        std::optional<Bytes> packet;
        // Asked without a pause, so that the kill comes as close behind the packet as it can.
        ASSERT_TRUE(WithoutPause([&] { return (packet = host.Receive(kAtOnce)).has_value(); }));
        mLastPacket = std::move(*packet);
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

    /** One run: from the start of the service to its death, and what the host has got of it. */
    void RunAndKill(std::mt19937 &random)
    {
        mLastPushed = -1;
        mFirstTime = 0;
        StartWithClock(mBefore.mTime, mRecording);
        const Host host(LinkPath());
        ASSERT_NO_FATAL_FAILURE(TakeNextPush(host));
        if (random() % 2 == 0) {
            // At the very moment at which one of the next packets arrives.
            for (auto more = random() % 8; more > 0; --more) {
                ASSERT_NO_FATAL_FAILURE(TakePush(mLastPacket));
                ASSERT_NO_FATAL_FAILURE(TakeNextPush(host));
            }
        } else {
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 30000));
        }
        mService->Signal(SIGKILL);
        ASSERT_EQ(mService->WaitForEnd(), 128 + SIGKILL);
        ASSERT_NO_FATAL_FAILURE(TakePush(mLastPacket));
        while (const auto packet = host.Receive(kAtOnce)) {
            ASSERT_NO_FATAL_FAILURE(TakePush(*packet));
        }
    }

    void CheckWhatIsStored()
    {
        const StoredSteps stored = StoredSteps::Read(mStateDirectory, mFolder.Path());
        ASSERT_EQ(stored.mIntegrity, "ok");
        int64_t reading = -1;
        ASSERT_NO_FATAL_FAILURE(Place(stored.mTotal, stored.mTime, reading));
        ASSERT_GE(reading, mLastPushed) << "the host has seen more than is stored";
        mNewer += reading > mLastPushed ? 1 : 0;
        for (const auto &entry : std::filesystem::directory_iterator(mStateDirectory)) {
            ASSERT_EQ(entry.path().string().find(".corrupt-"), std::string::npos) << entry.path();
        }
        mBefore = stored;
    }

    static constexpr std::chrono::milliseconds kAtOnce{0};

    std::string mRecording;
    StoredSteps mBefore;
    Bytes mLastPacket;
    /** Place of the last reading that the host has got in this run; -1 for none. */
    int64_t mLastPushed = -1;
    /** The time of this run's first reading, as the first push that has come tells it. */
    int64_t mFirstTime = 0;
    /** Runs in which something was stored that the host had not got yet. */
    int mNewer = 0;
};

TEST_F(KillTest, WhatTheHostHasSeenIsStoredWholeAfterEveryKill)
{
    const unsigned seed = NumberFrom("PARVANE_KILL_SEED", kSeed);
    const unsigned kills = NumberFrom("PARVANE_KILLS", KILLS_BY_DEFAULT);
    std::cout << kills << " kills, PARVANE_KILL_SEED=" << seed << std::endl;
    std::mt19937 random(seed);
    for (unsigned kill = 0; kill < kills; ++kill) {
        SCOPED_TRACE("kill " + std::to_string(kill));
        if (kill % kKillsOfAState == 0 || mBefore.mTotal > kLargeTotal) {
            ASSERT_NO_FATAL_FAILURE(BeginState());
        }
        ASSERT_NO_FATAL_FAILURE(RunAndKill(random));
        ASSERT_NO_FATAL_FAILURE(CheckWhatIsStored());
    }
    std::cout << "after " << mNewer << " of them more was stored than the host had got"
              << std::endl;
}
